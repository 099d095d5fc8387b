#include "hosts/fuse/watches.hpp"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <system_error>
#include <unistd.h>

namespace tavelin::test {

namespace {

constexpr int kWatchTimeoutMs = 30'000; // milliseconds

int checked(int result, const char* call) {
    if (result < 0) {
        throw std::system_error(errno, std::generic_category(), call);
    }
    return result;
}

bool awaitEvent(int descriptor, short events) {
    pollfd wanted{descriptor, events, 0};
    int ready = 0;
    do {
        ready = ::poll(&wanted, 1, kWatchTimeoutMs);
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

} // namespace

ChangeWatch::ChangeWatch(const std::filesystem::path& file)
    : descriptor_(checked(::inotify_init1(IN_CLOEXEC), "inotify_init1")) {
    checked(::inotify_add_watch(descriptor_.get(), file.c_str(), IN_MODIFY), file.c_str());
}

bool ChangeWatch::await() {
    alignas(inotify_event) std::array<char, 4096> notes{};
    return awaitEvent(descriptor_.get(), POLLIN) &&
           ::read(descriptor_.get(), notes.data(), notes.size()) > 0;
}

MountTableWatch::MountTableWatch()
    : descriptor_(checked(::open("/proc/self/mounts", O_RDONLY | O_CLOEXEC), "/proc/self/mounts")) {
}

// The kernel reports a change of the table as exceptional, relative to the last poll.
bool MountTableWatch::await() {
    return awaitEvent(descriptor_.get(), POLLPRI);
}

} // namespace tavelin::test
