#include "hosts/cli/copy/transfer.hpp"

#include "hosts/cli/text.hpp"
#include "platform/error_numbers.hpp"

#include <fmt/format.h>

#include <cerrno>
#include <unistd.h>

namespace tavelin::cli {
namespace {

/// Whether an error concerns the whole volume, device or process: every further item would meet it.
bool endsEverything(std::int32_t number) {
    switch (number) {
    case kENOSPC:
    case kEDQUOT:
    case kEIO:
    case kENXIO:
    case kEROFS:
    case kENOMEM:
    case kEMFILE:
    case kENFILE:
        return true;
    default:
        return false;
    }
}

} // namespace

void CopyRun::tell(const std::string& text) {
    bar.clear();
    complain(fmt::format("{}: {}", command_, text));
}

void CopyRun::problem(const std::string& text) {
    // The first one waits for a second: a single problem is the command's only message.
    if (++problems_ == 1) {
        first_ = text;
        return;
    }
    if (problems_ == 2) {
        tell(first_);
    }
    tell(text);
}

void CopyRun::end() {
    if (streamsLeftOut_ > 0) {
        problem(fmt::format("{} named streams were left out: the target's file system has no room "
                            "for them (--no-streams leaves them out on purpose)",
                            streamsLeftOut_));
    }
    bar.clear();
    if (problems_ == 1) {
        // Nothing else was copied when the one item of the run is the problem.
        const bool alone = report.files + report.directories + report.links == 0;
        throw Failure(first_ + (alone ? "" : "; everything else was copied"));
    }
    if (problems_ > 1) {
        throw Failure(
            fmt::format("{} problems, told above; everything else was copied", problems_));
    }
}

std::string CopyRun::partialName() {
    return fmt::format(".tavelin-part-{}-{}", getpid(), ++partials_);
}

void throwVolumeError(std::string_view path, const fskit::Error& error,
                      const fskit::FSItemAttributes& attributes) {
    if (endsEverything(numberOf(error))) {
        throw Failure(explain(path, error));
    }
    throw ItemFailure(explainData(path, error, attributes));
}

void throwHostError(std::string_view path) {
    // Saved first, because building the text may change errno.
    const int error = errno;
    const std::string text = explainHost(path, error);
    if (endsEverything(fromHost(error))) {
        throw Failure(text);
    }
    throw ItemFailure(text);
}

} // namespace tavelin::cli
