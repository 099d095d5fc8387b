/// The structural check of an NTFS volume.
///
/// Reads the volume with readers of its own and changes nothing. What is on the device is taken for
/// hostile: the time is bounded by the size of the volume, the memory by a bit a cluster and about
/// forty bytes a file record in use. One thread at a time uses a device.
#pragma once

#include "check/finding.hpp"
#include "core/block_device.hpp"

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace tavelin::check {

/// How far a check is; passed to onProgress.
struct Progress {
    std::string_view phase;  ///< "file records"
    std::uint64_t done = 0;  ///< bytes
    std::uint64_t total = 0; ///< bytes as far as they are known; grows
};

/// What a check looks at and whom it tells. The callbacks run on the thread of the check.
struct Options {
    bool deep = false; ///< read the content of all files, too
    /// Findings of one class that are handed out; those beyond are only counted.
    std::uint64_t findingsPerClassMax = 1000;
    /// Called with each finding as it is made.
    std::function<void(const Finding&)> onFinding;
    /// Called often; false ends the check early.
    std::function<bool(const Progress&)> onProgress;
};

/// What a check found, in numbers. The findings themselves went to onFinding.
struct Report {
    /// Why the volume could not be read at all; empty when it could.
    std::string unreadable;
    bool isComplete = true; ///< false when onProgress ended it
    std::array<std::uint64_t, static_cast<std::size_t>(FindingClass::count)> counts{};
    std::uint64_t records = 0; ///< file records in use
    std::uint64_t directories = 0;
    std::uint64_t files = 0; ///< not the system's
    std::uint64_t clusters = 0;
    std::uint64_t clustersUsed = 0;
    /// What a reader has to know besides, such as what cannot be trusted on a hibernated volume.
    std::vector<std::string> notes;

    /// Findings of all classes, or of one severity.
    [[nodiscard]] std::uint64_t total() const noexcept;
    [[nodiscard]] std::uint64_t total(Severity severity) const noexcept;
    [[nodiscard]] bool isClean() const noexcept { return unreadable.empty() && total() == 0; }
};

/// Never throws for what is on the device; std::bad_alloc when memory runs out.
[[nodiscard]] Report checkVolume(BlockDevice& device, const Options& options = {});

/// For a line of a test or a log: empty when the volume is clean, otherwise a line for each finding
/// of at least this severity, up to a dozen.
[[nodiscard]] std::string complaints(BlockDevice& device, Severity least = Severity::cosmetic);

/// "wrong: index-order: record 64, /a: …".
[[nodiscard]] std::string oneLine(const Finding& finding);

} // namespace tavelin::check
