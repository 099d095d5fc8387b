/// Waits for a file to change, for `events --follow`.
#pragma once

#include "platform/file_descriptor.hpp"

#include <filesystem>

namespace tavelin::cli {

/// Watches the directory of a file and not the file itself, because the file may be missing, may be
/// replaced or may be made anew. Linux uses inotify(7). Other systems poll twice a second. One
/// thread at a time.
class FileWatch {
  public:
    /// Begins to watch. The file's directory must exist. Throws Failure when it cannot be watched.
    explicit FileWatch(const std::filesystem::path& file);

    /// Returns once the file has changed since the watch began or since the last wait. It may also
    /// return without a change, so callers read the file and wait again. Throws Failure.
    void wait();

  private:
    FileDescriptor notifications_; ///< the inotify instance; empty where the class polls
};

} // namespace tavelin::cli
