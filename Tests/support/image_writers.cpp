#include "support/image_writers.hpp"

#include "platform/file_descriptor.hpp"

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <system_error>

namespace tavelin::test {
namespace {

constexpr int kLookAgainMs = 20;

int succeeded(int result, const char* call) {
    if (result == -1) {
        throw std::system_error(errno, std::generic_category(), call);
    }
    return result;
}

// The kernel grants a read lease only while there is no writer.
bool hasWriter(const std::filesystem::path& image) {
    const FileDescriptor file(image.c_str(), O_RDONLY);
    succeeded(file.get(), "open");
    // Whoever opens the file meanwhile sends a signal, which must be one that is ignored.
    succeeded(::fcntl(file.get(), F_SETSIG, SIGURG), "F_SETSIG");
    if (::fcntl(file.get(), F_SETLEASE, F_RDLCK) == 0) {
        return false;
    }
    if (errno != EAGAIN) {
        throw std::system_error(errno, std::generic_category(), "F_SETLEASE");
    }
    return true;
}

} // namespace

void awaitNoWriter(const std::filesystem::path& image) {
    // Watched from before the first look on, so that no end is missed.
    const FileDescriptor closings(::inotify_init1(IN_CLOEXEC));
    succeeded(closings.get(), "inotify_init1");
    succeeded(::inotify_add_watch(closings.get(), image.c_str(), IN_CLOSE_WRITE),
              "inotify_add_watch");
    alignas(inotify_event) std::array<char, 4096> notes{};
    while (hasWriter(image)) {
        // The kernel tells of a close just before it takes the writer off its count, so one look
        // after the event may still find it; hence the bound.
        pollfd closed{closings.get(), POLLIN, 0};
        if (::poll(&closed, 1, kLookAgainMs) > 0) {
            (void)closings.readSome(notes.data(), notes.size());
        }
    }
}

} // namespace tavelin::test
