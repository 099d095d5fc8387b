#include "check/mount_gate.hpp"

#include "check/private/volume_view.hpp"

#include <fmt/format.h>

namespace tavelin::check {
namespace {

// Flags of $VOLUME_INFORMATION.
constexpr std::uint16_t kMarkedDirty = 0x0001;
struct Reservation {
    std::uint16_t flag;
    const char* reason; ///< completes "The volume …"
};
constexpr Reservation kReservations[] = {
    {0x4000, "is being checked by chkdsk, or was when that was cut short"},
    {0x8000, "was changed by chkdsk and has not been used by Windows since"},
    {0x0002, "waits for Windows to give its $LogFile another size"},
    {0x0004, "waits for Windows to upgrade it"},
    {0x0020, "waits for Windows to repair its object identifiers"},
};

std::uint16_t flagsOnVolume(BlockDevice& device) {
    VolumeView view(device);
    return view.isReadable() ? view.information().flags : std::uint16_t{0};
}

} // namespace

bool isMarkedDirty(BlockDevice& device) {
    return (flagsOnVolume(device) & kMarkedDirty) != 0;
}

std::string reservation(BlockDevice& device) {
    const std::uint16_t flags = flagsOnVolume(device);
    for (const Reservation& waiting : kReservations) {
        if ((flags & waiting.flag) != 0) {
            return fmt::format("The volume {}: it can only be read until Windows has mounted it.",
                               waiting.reason);
        }
    }
    return {};
}

GateVerdict judgeForWriting(BlockDevice& device, std::string_view reason,
                            std::chrono::milliseconds bound) {
    // A mount must not take as long as the check of a large volume. What was found until the time
    // is up decides, and the verdict says that it was not all.
    const auto end = std::chrono::steady_clock::now() + bound;
    std::string worst;
    Options options;
    options.onProgress = [&](const Progress&) { return std::chrono::steady_clock::now() < end; };
    options.onFinding = [&](const Finding& finding) {
        if (worst.empty() && info(finding.kind).severity == Severity::dataAtRisk) {
            worst = fmt::format("{}{}{}", info(finding.kind).meaning,
                                finding.path.empty() ? "" : ": ", finding.path);
        }
    };
    const Report report = checkVolume(device, options);
    // Lesser findings do not keep a volume from being written to: writing makes none of them worse.
    const std::uint64_t risks = report.total(Severity::dataAtRisk);
    TAVELIN_ASSERT(risks > 0 || worst.empty());
    if (!report.unreadable.empty()) {
        return {false,
                fmt::format("The volume {} and cannot be checked: {}.", reason, report.unreadable)};
    }
    if (risks > 0) {
        return {false,
                fmt::format("The volume {}, and writing to it would put data at risk ({}{}): "
                            "it can only be read. Copy what matters, then repair it with "
                            "'chkdsk /f' in Windows.",
                            reason, worst,
                            risks > 1 ? fmt::format(", and {} more", risks - 1) : "")};
    }
    return {true, fmt::format("The volume {}; {} nothing that puts data at risk.", reason,
                              report.isComplete ? "a check has found"
                                                : "a check of as much as there was time for has "
                                                  "found")};
}

} // namespace tavelin::check
