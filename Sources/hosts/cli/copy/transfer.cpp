#include "hosts/cli/copy/transfer.hpp"

#include "hosts/cli/image_place.hpp"
#include "hosts/cli/report.hpp"
#include "hosts/cli/text.hpp"
#include "platform/assert.hpp"

#include <fmt/format.h>

#include <cerrno>
#include <charconv>
#include <system_error>
#include <unistd.h>

namespace tavelin::cli {

struct ::stat imageStatus(const std::string& image, std::optional<std::uint64_t> offset) {
    struct ::stat status {};
    if (stat(findVolume(image, offset).path.c_str(), &status) != 0) {
        throw Failure(explainHost(image, errno));
    }
    return status;
}

CopyRun::~CopyRun() {
    // A run that ends early has not told a first problem yet.
    if (!ended_ && problems_ == 1) {
        tell(*first_);
    }
}

void CopyRun::tell(const Failure& failure) {
    bar.clear();
    tellFailure(failure);
}

void CopyRun::problem(const Failure& failure) {
    // The first one waits for a second: a single problem is the command's only message.
    if (++problems_ == 1) {
        first_ = failure;
        return;
    }
    TAVELIN_ASSERT(first_.has_value());
    if (problems_ == 2) {
        tell(*first_);
    }
    tell(failure);
}

void CopyRun::end() {
    TAVELIN_ASSERT(!ended_);
    ended_ = true;
    if (streamsLeftOut_ > 0) {
        problem(Failure(
            fmt::format("{} named {} left out: the target's file system has no room for "
                        "them (--no-streams leaves them out on purpose)",
                        streamsLeftOut_, streamsLeftOut_ == 1 ? "stream was" : "streams were")));
    }
    bar.clear();
    if (problems_ == 1) {
        // Nothing else was copied when the one item of the run is the problem.
        const bool alone = report.files + report.directories + report.links == 0;
        throw Failure(first_->what() + std::string(alone ? "" : "; everything else was copied"),
                      first_->subject(), first_->number());
    }
    if (problems_ > 1) {
        throw Failure(
            fmt::format("{} problems, told above; everything else was copied", problems_));
    }
}

std::string CopyRun::partialName() {
    return fmt::format("{}{}-{}", kPartialPrefix, getpid(), ++partials_);
}

void throwMissingTarget(const std::string& path) {
    throw Failure(escaped(path) + ": no such directory on the volume: 'tavelin mkdir -p' makes it",
                  path, kENOENT);
}

std::optional<pid_t> partialNameProcess(std::string_view name) noexcept {
    if (!name.starts_with(kPartialPrefix)) {
        return std::nullopt;
    }
    const char* const end = name.data() + name.size();
    pid_t process = 0;
    const auto first = std::from_chars(name.data() + kPartialPrefix.size(), end, process);
    if (first.ec != std::errc() || first.ptr == end || *first.ptr != '-' || process <= 0) {
        return std::nullopt;
    }
    std::uint64_t count = 0;
    const auto second = std::from_chars(first.ptr + 1, end, count);
    return second.ec == std::errc() && second.ptr == end ? std::optional(process) : std::nullopt;
}

} // namespace tavelin::cli
