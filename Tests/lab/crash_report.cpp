#include "lab/crash_report.hpp"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>

namespace tavelin::test {

namespace {

const std::map<Cut, const char*> kCutNames{{Cut::prefix, "in order"},
                                           {Cut::torn, "torn at 512"},
                                           {Cut::tornPages, "torn at 4096"},
                                           {Cut::reordered, "reordered"},
                                           {Cut::dropped, "dropped"}};

std::string row(const std::string& name, const CutCounts& counts) {
    std::string text = fmt::format("\n{:<45}", name);
    for (const auto& [cut, heading] : kCutNames) {
        text += fmt::format("{:>14}", counts.contains(cut) ? counts.at(cut) : 0);
    }
    return text;
}

void addCounts(CutCounts& counts, const CutCounts& more) {
    for (const auto& [cut, number] : more) {
        counts[cut] += number;
    }
}

} // namespace

std::string CrashReport::describe() const {
    return fmt::format("{}\n", fmt::join(examples, "\n"));
}

std::string CrashReport::table() const {
    std::string text = fmt::format("scripts {}, cut points {}, checked independently {}\n\n{:<45}",
                                   scripts, cutPoints, checked, "");
    for (const auto& [cut, heading] : kCutNames) {
        text += fmt::format("{:>14}", heading);
    }
    text += row("images", images) + row("completed by the mount", completed) +
            row("with newer bytes in a file", newer);
    for (const auto& [fault, counts] : faults) {
        text += row(fault, counts);
    }
    return text + "\n" + describe();
}

void CrashReport::add(const std::string& fault, Cut cut, const std::string& script, std::size_t end,
                      const std::string& what) {
    faults[fault][cut]++;
    if (examples.size() < kExamplesMax) {
        examples.push_back(fmt::format("{}: cut after event {}, {}: {}: {}", script, end,
                                       kCutNames.at(cut), fault, what));
    }
}

void CrashReport::add(const CrashReport& other) {
    scripts += other.scripts;
    cutPoints += other.cutPoints;
    checked += other.checked;
    addCounts(images, other.images);
    addCounts(completed, other.completed);
    addCounts(newer, other.newer);
    for (const auto& [fault, counts] : other.faults) {
        addCounts(faults[fault], counts);
    }
    examples.insert(examples.end(), other.examples.begin(), other.examples.end());
    examples.resize(std::min(examples.size(), kExamplesMax));
}

} // namespace tavelin::test
