#include "hosts/cli/file_watch.hpp"

#include "hosts/cli/failure.hpp"

#include <cerrno>
#include <poll.h>

#ifdef __linux__
#include <array>
#include <sys/inotify.h>
#endif

namespace tavelin::cli {

#ifdef __linux__

FileWatch::FileWatch(const std::filesystem::path& file)
    : notifications_(inotify_init1(IN_CLOEXEC)) {
    // IN_CREATE and IN_MOVED_TO cover a log that is made or rotated. inotify queues the events from
    // this call on, so a change before the first wait() is not lost.
    const std::string directory = file.parent_path().string();
    if (!notifications_ || inotify_add_watch(notifications_.get(), directory.c_str(),
                                             IN_MODIFY | IN_CREATE | IN_MOVED_TO) < 0) {
        throw Failure(explainHost(directory, errno));
    }
}

void FileWatch::wait() {
    // The content of the events does not matter: the caller looks at the file. One read() takes all
    // that fit. A signal ends the wait early, which the contract allows.
    alignas(inotify_event) std::array<char, 4096> events;
    if (read(notifications_.get(), events.data(), events.size()) < 0 && errno != EINTR) {
        throw Failure(explainHost("inotify", errno));
    }
}

#else

FileWatch::FileWatch(const std::filesystem::path&) {}

void FileWatch::wait() {
    constexpr int kMilliseconds = 500;
    poll(nullptr, 0, kMilliseconds); // no portable call reports changes
}

#endif

} // namespace tavelin::cli
