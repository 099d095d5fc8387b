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
    const std::string directory = file.parent_path().string();
    if (!notifications_ || inotify_add_watch(notifications_.get(), directory.c_str(),
                                             IN_MODIFY | IN_CREATE | IN_MOVED_TO) < 0) {
        throw Failure(explainHost(directory, errno));
    }
}

void FileWatch::wait() {
    alignas(inotify_event) std::array<char, 4096> events;
    if (read(notifications_.get(), events.data(), events.size()) < 0 && errno != EINTR) {
        throw Failure(explainHost("inotify", errno));
    }
}

#else

FileWatch::FileWatch(const std::filesystem::path&) {}

void FileWatch::wait() {
    constexpr int kMilliseconds = 500;
    poll(nullptr, 0, kMilliseconds); // where nothing tells of changes, looking is all there is
}

#endif

} // namespace tavelin::cli
