// The answer to checks and to formatting. Nothing on the volume is inspected or repaired: a check
// is accepted for volumes that are loaded, and loading is what tests that they can be.
#include "core/driver2/check_mode.hpp"
#include "diagnostics/event_log.hpp"
#include "diagnostics/log.hpp"
#include "fskit/tavelin_file_system.hpp"
#include "platform/utility_queue.hpp"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <optional>

namespace tavelin {

namespace {

std::string_view modeName(Driver2::CheckMode mode) noexcept {
    switch (mode) {
    case Driver2::CheckMode::quick:
        return "quick";
    case Driver2::CheckMode::verify:
        return "verify";
    case Driver2::CheckMode::repair:
        break;
    }
    return "repair";
}

/// Absent when the arguments are not understood, which is reported here.
std::optional<Driver2::CheckMode> parsedMode(const fskit::FSTaskOptions& options) {
    try {
        return Driver2::checkMode(options.taskOptions);
    } catch (const NTFSError& error) {
        events().event("check",
                       Fields{{"options", fmt::format("{}", fmt::join(options.taskOptions, " "))},
                              {"errno", error.code}});
        return std::nullopt;
    }
}

} // namespace

Outcome<std::shared_ptr<fskit::NSProgress>>
TavelinFileSystem::startCheck(const std::shared_ptr<fskit::FSTask>& task,
                              const fskit::FSTaskOptions& options) {
    const std::optional<Driver2::CheckMode> parsed = parsedMode(options);
    if (!parsed) {
        return fskit::fs_errorForPOSIXError(kEINVAL);
    }
    const Driver2::CheckMode mode = *parsed;
    // The deactivation has closed the volume, and an unload need not follow.
    const bool loaded = volume != nullptr && volume->ntfs->isMounted();
    if (const auto refusal = Driver2::checkError(mode, loaded)) {
        log().info(fmt::format("check: mode={} -> errno {}", modeName(mode), *refusal));
        events().event("check",
                       Fields{{"mode", modeName(mode)}, {"errno", *refusal}, {"loaded", loaded}});
        return fskit::fs_errorForPOSIXError(*refusal);
    }
    events().event("check", Fields{{"mode", modeName(mode)}, {"errno", 0}});
    auto progress = std::make_shared<fskit::NSProgress>(1);
    runOnUtilityQueue([task, progress] {
        progress->setCompletedUnitCount(1);
        task->didComplete(std::nullopt);
    });
    return progress;
}

Outcome<std::shared_ptr<fskit::NSProgress>>
TavelinFileSystem::startFormat(const std::shared_ptr<fskit::FSTask>& /*task*/,
                               const fskit::FSTaskOptions& /*options*/) {
    return fskit::fs_errorForPOSIXError(kENOTSUP);
}

} // namespace tavelin
