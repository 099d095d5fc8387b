/// What copying into and out of a volume have in common.
///
/// An item that cannot be copied is a problem: it is told, the rest goes on, and the command fails
/// in the end. What ends everything (a full volume, a failing device, the user) is a Failure. A
/// file gets its name when it is complete; until then it has a name of partialName().
#pragma once

#include "hosts/cli/failure.hpp"
#include "hosts/cli/terminal.hpp"

#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/stat.h>

namespace tavelin::cli {

/// Bytes moved at a time.
inline constexpr std::size_t kTransferBytes = 1 << 20;
/// Directories inside each other; deeper ones are a problem, as is a damaged volume's endless one.
inline constexpr int kTreeDepthMax = 500;

/// One item cannot be copied.
class ItemFailure : public Failure {
    using Failure::Failure;
};

struct CopyReport {
    std::uint64_t files = 0;
    std::uint64_t directories = 0;
    std::uint64_t links = 0;
    std::uint64_t streams = 0;
    std::uint64_t bytes = 0;
};

struct CopySettings {
    bool streams = true; ///< named streams too, as "user." attributes on the host
    bool quiet = false;  ///< no progress bar
    /// The image itself, which is never copied into itself or replaced.
    struct ::stat image {};
};

/// One run of a copying command.
class CopyRun {
  public:
    CopyRun(const char* command, const CopySettings& wanted)
        : settings(wanted), bar(wanted.quiet), command_(command) {}

    /// Tells it on standard error; the first one only when it does not stay alone.
    void problem(const std::string& text);
    /// A stream that the other side has no room for; told as one problem in the end.
    void leaveOutStream() noexcept { ++streamsLeftOut_; }
    /// Throws Failure when there were problems.
    void end();

    [[nodiscard]] bool isImage(const struct ::stat& file) const noexcept {
        return file.st_dev == settings.image.st_dev && file.st_ino == settings.image.st_ino;
    }
    /// A name that nobody else uses: ".tavelin-part-" and numbers.
    [[nodiscard]] std::string partialName();

    const CopySettings settings;
    CopyReport report;
    ProgressBar bar;

  private:
    void tell(const std::string& text);

    const char* const command_;
    std::string first_;
    std::uint64_t problems_ = 0;
    std::uint64_t streamsLeftOut_ = 0;
    std::uint64_t partials_ = 0;
};

/// Passes a volume's answer on: ItemFailure for what concerns one item, Failure for the rest. The
/// attributes of a file explain why its data cannot be had.
[[noreturn]] void throwVolumeError(std::string_view path, const fskit::Error& error,
                                   const fskit::FSItemAttributes& attributes = {});
template<typename Value>
Value ofItem(Outcome<Value> outcome, std::string_view path,
             const fskit::FSItemAttributes& attributes = {}) {
    if (!outcome) {
        throwVolumeError(path, outcome.error(), attributes);
    }
    return std::move(outcome).get();
}

/// The same for a call of the host that failed with errno.
[[noreturn]] void throwHostError(std::string_view path);

} // namespace tavelin::cli
