#include "check/mount_gate.hpp"

#include "check/check.hpp"
#include "check/private/volume.hpp"

#include <fmt/format.h>

namespace tavelin::check {
namespace {

constexpr std::uint16_t kMarkedDirty = 0x0001; // in the flags of $VOLUME_INFORMATION

} // namespace

bool isMarkedDirty(BlockDevice& device) {
    const Options options;
    Report report;
    Volume volume(device, options, report);
    try {
        volume.open();
    } catch (const Unreadable&) {
        return false;
    }
    File file;
    const Attribute* const information =
        volume.loadFile(ntb::record_volume, file) ? file.find(ntb::at_volume_information) : nullptr;
    return information != nullptr && information->isResident() && information->size() >= 12 &&
           (ntb::u16_at(information->first.value().data(), 0x0a) & kMarkedDirty) != 0;
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
