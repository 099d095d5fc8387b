#include "check/check.hpp"

#include "check/private/passes.hpp"

#include <fmt/format.h>

#include <numeric>

namespace tavelin::check {
namespace {

constexpr std::size_t kComplaintsMax = 12;

void runPasses(Volume& volume) {
    volume.open();
    // Fills in the tables of records, clusters and security ids, which all later passes go by.
    checkRecords(volume);
    checkSystemFiles(volume);
    // Directories are sorted by the volume's own table.
    loadUpcase(volume);
    // Takes each index entry off the sum of its record's names. What is left is resolved after all
    // directories were seen.
    checkDirectories(volume);
    resolveNames(volume);
    checkReachability(volume);
    checkBitmaps(volume);
    // Needs the clusters that $Bitmap has as free.
    resolveClusters(volume);
    checkSecurity(volume);
    // Needs the files in $Extend, which the directories named.
    checkViewIndexes(volume);
    if (volume.options.deep) {
        readAllData(volume);
    }
}

} // namespace

std::uint64_t Report::total() const noexcept {
    return std::accumulate(counts.begin(), counts.end(), std::uint64_t{0});
}

std::uint64_t Report::total(Severity severity) const noexcept {
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < counts.size(); ++i) {
        sum += info(static_cast<FindingClass>(i)).severity == severity ? counts[i] : 0;
    }
    return sum;
}

Report checkVolume(BlockDevice& device, const Options& options) {
    Report report;
    Volume volume(device, options, report);
    try {
        runPasses(volume);
    } catch (const Unreadable& reason) {
        report.unreadable = reason.reason;
    } catch (const Stopped&) {
        report.isComplete = false;
    }
    // What was not examined is a finding: a check that gave up must not end as a clean one.
    if (volume.isExhausted()) {
        volume.reporter.count(FindingClass::notExamined);
    }
    report.clustersUsed = volume.clusters.used();
    return report;
}

std::string oneLine(const Finding& finding) {
    const ClassInfo& about = info(finding.kind);
    std::string line = fmt::format("{}: {}", text(about.severity), about.name);
    if (finding.record) {
        line += fmt::format(": record {}", *finding.record);
    }
    if (!finding.path.empty()) {
        line += fmt::format(": {}", finding.path);
    }
    line += fmt::format(": {}", about.meaning);
    if (!finding.expected.empty() || !finding.found.empty()) {
        line += fmt::format(" (expected {}; found {})", finding.expected, finding.found);
    }
    return line;
}

std::string complaints(BlockDevice& device, Severity least) {
    std::string lines;
    std::size_t count = 0;
    Options options;
    options.onFinding = [&](const Finding& finding) {
        if (info(finding.kind).severity >= least && ++count <= kComplaintsMax) {
            lines += oneLine(finding) + "\n";
        }
    };
    const Report report = checkVolume(device, options);
    if (count > kComplaintsMax) {
        lines += fmt::format("and {} more\n", count - kComplaintsMax);
    }
    return report.unreadable.empty() ? lines : report.unreadable + "\n" + lines;
}

} // namespace tavelin::check
