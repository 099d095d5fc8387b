/// The common part of copying into and out of a volume: settings, counts, problems and errors.
///
/// An item that cannot be copied is a problem: it is reported, the rest is copied, and the command
/// fails in the end. An error of the whole volume, device or process, and an interruption, is a
/// Failure and ends the run at once. A file or link is made under a name of partialName() and gets
/// its own name when it is complete, so no half-written file ever has the name of a whole one.
///
/// Everything here belongs to the thread that copies.
#pragma once

#include "hosts/cli/failure.hpp"
#include "hosts/cli/terminal.hpp"

#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/stat.h>

namespace tavelin::cli {

/// Bytes of one read or write. Large enough that the cost of a request does not count, and a
/// multiple of every cluster size that is common.
inline constexpr std::size_t kTransferBytes = 1 << 20;
/// Levels of directories inside each other; deeper ones are a problem. It ends the loops that a
/// damaged volume's directories may form. Each level keeps a directory of the host open, so it
/// stays below the 1024 descriptors that a process usually has.
inline constexpr int kTreeDepthMax = 500;

/// One item cannot be copied. Caught per item and turned into a problem of the run.
class ItemFailure : public Failure {
    using Failure::Failure;
};

/// Counts of the items that were copied whole.
struct CopyReport {
    std::uint64_t files = 0;
    std::uint64_t directories = 0;
    std::uint64_t links = 0;
    std::uint64_t streams = 0;
    std::uint64_t bytes = 0; ///< of file contents, without the streams
};

/// The choices of the user, fixed for a run.
struct CopySettings {
    bool streams = true; ///< named streams too, as "user." attributes on the host
    bool quiet = false;  ///< no progress bar
    /// The image's own status, to recognise it by: it is never copied into itself or replaced.
    struct ::stat image {};
};

/// One run of a copying command. The command makes it, passes it to a TreeGetter or TreePutter, and
/// calls end() when all items are done.
class CopyRun {
  public:
    /// `command` is the command's name for messages, a constant.
    CopyRun(const char* command, const CopySettings& wanted)
        : settings(wanted), bar(wanted.quiet), command_(command) {}

    /// Records that an item was not copied. A single problem becomes the message of end(). From the
    /// second one on, all are printed on standard error as they occur.
    void problem(const std::string& text);
    /// Records a stream that the target has no room for. end() reports their number as one problem:
    /// on a file system without attributes there would be one for every file.
    void leaveOutStream() noexcept { ++streamsLeftOut_; }
    /// Ends the run and clears the bar. Throws Failure when there were problems. Called once, last.
    void end();

    /// Whether a file of the host is the image, under whatever name.
    [[nodiscard]] bool isImage(const struct ::stat& file) const noexcept {
        return file.st_dev == settings.image.st_dev && file.st_ino == settings.image.st_ino;
    }
    /// A new name for an incomplete item: ".tavelin-part-PID-NUMBER". The process's number keeps
    /// two runs apart.
    [[nodiscard]] std::string partialName();

    const CopySettings settings;
    CopyReport report;
    ProgressBar bar;

  private:
    void tell(const std::string& text);

    const char* const command_;
    std::string first_; ///< the first problem, until it is known whether there are more
    std::uint64_t problems_ = 0;
    std::uint64_t streamsLeftOut_ = 0;
    std::uint64_t partials_ = 0;
};

/// Throws for a volume's error: Failure when the error concerns the whole volume or the process
/// (full, read-only, failing device), ItemFailure when it concerns one item. `attributes` are
/// those of a file whose data was asked for, and explain why it is refused.
[[noreturn]] void throwVolumeError(std::string_view path, const fskit::Error& error,
                                   const fskit::FSItemAttributes& attributes = {});
/// Returns the value of an outcome. Throws for its error as throwVolumeError() does.
template<typename Value>
Value ofItem(Outcome<Value> outcome, std::string_view path,
             const fskit::FSItemAttributes& attributes = {}) {
    if (!outcome) {
        throwVolumeError(path, outcome.error(), attributes);
    }
    return std::move(outcome).get();
}

/// The same for a system call that has just failed: reads errno, so nothing may come in between.
[[noreturn]] void throwHostError(std::string_view path);

} // namespace tavelin::cli
