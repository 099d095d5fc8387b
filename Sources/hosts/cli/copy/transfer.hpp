/// The common part of copying into and out of a volume: settings, counts, problems and errors.
///
/// An item that cannot be copied, an ItemFailure, is a problem: it is reported, the rest is copied,
/// and the command fails in the end. An error of the whole volume, device or process, and an
/// interruption, is a Failure and ends the run at once. A file or link is made under a name of
/// partialName() and gets its own name when it is complete, so no half-written file ever has the
/// name of a whole one.
///
/// Everything here belongs to the thread that copies.
#pragma once

#include "hosts/cli/failure.hpp"
#include "hosts/cli/terminal.hpp"
#include "platform/error_numbers.hpp"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/types.h>

namespace tavelin::cli {

/// Bytes of one read or write. Large enough that the cost of a request does not count, and a
/// multiple of every cluster size that is common.
inline constexpr std::size_t kTransferBytes = 1 << 20;
/// The largest stream: its whole value is in memory until it is written.
inline constexpr std::size_t kStreamBytesMax = 64 << 20;
/// Levels of directories inside each other; deeper ones are a problem. It ends the loops that a
/// damaged volume's directories may form. Each level keeps a directory of the host open, so it
/// stays below the 1024 descriptors that a process usually has.
inline constexpr int kTreeDepthMax = 500;
static_assert(kTreeDepthMax < 1000, "some descriptors are needed for other things");

/// Counts of the items that were copied whole.
struct CopyReport {
    std::uint64_t files = 0;
    std::uint64_t directories = 0;
    std::uint64_t links = 0;
    std::uint64_t streams = 0;
    std::uint64_t hardLinks = 0; ///< further names of files
    std::uint64_t bytes = 0;     ///< of file contents, without the streams
};

/// What the name of an incomplete item begins with.
inline constexpr std::string_view kPartialPrefix = ".tavelin-part-";
/// The number of the process that made an incomplete item of this name; absent for other names.
[[nodiscard]] std::optional<pid_t> partialNameProcess(std::string_view name) noexcept;

/// The choices of the user, fixed for a run.
struct CopySettings {
    bool streams = true; ///< named streams too, as "user." attributes on the host
    bool quiet = false;  ///< no progress bar
    /// Further names of a file are made as hard links of the copy.
    bool hardLinks = false;
    /// The image's own status, to recognise it by: it is never copied into itself or replaced.
    struct ::stat image {};
};

/// The status of the file or device that the user named as IMAGE, without a partition's number.
/// Throws Failure where there is none.
[[nodiscard]] struct ::stat imageStatus(const std::string& image,
                                        std::optional<std::uint64_t> offset);

/// One run of a copying command. The command makes it, passes it to a TreeGetter or TreePutter, and
/// calls end() when all items are done.
class CopyRun {
  public:
    explicit CopyRun(const CopySettings& wanted) : settings(wanted), bar(wanted.quiet) {}

    ~CopyRun();
    CopyRun(const CopyRun&) = delete;
    CopyRun& operator=(const CopyRun&) = delete;

    /// Records that an item was not copied. A single problem becomes the message of end(). From the
    /// second one on, all are printed on standard error as they occur.
    void problem(const Failure& failure);
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
    void tell(const Failure& failure);

    std::optional<Failure> first_; ///< the first problem, until it is known whether there are more
    std::uint64_t problems_ = 0;
    /// Whether end() has run. A run without it has left by an exception.
    bool ended_ = false;
    std::uint64_t streamsLeftOut_ = 0;
    /// Names that partialName() has given.
    std::uint64_t partials_ = 0;
};

/// Throws Failure with the remedy for a directory of the volume that is to be copied into and is
/// not there.
[[noreturn]] void throwMissingTarget(const std::string& path);

/// Returns the value of an outcome, as valueOf() does. A device error also ends the run: a volume
/// that cannot be written has no use for the next item.
template<typename Value>
Value ofItem(Outcome<Value> outcome, std::string_view path) {
    if (!outcome && numberOf(outcome.error()) == kEIO) {
        throw Failure(explain(path, outcome.error()), path, kEIO);
    }
    return valueOf(std::move(outcome), path);
}

} // namespace tavelin::cli
