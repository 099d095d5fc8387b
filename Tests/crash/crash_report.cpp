#include "crash/crash_report.hpp"

#include <algorithm>

namespace tavelin::test {

const std::map<Cut, const char*> kCutNames{{Cut::prefix, "in order"},
                                           {Cut::torn, "torn at 512"},
                                           {Cut::tornPages, "torn at 4096"},
                                           {Cut::reordered, "reordered"},
                                           {Cut::dropped, "dropped"}};

const std::map<Fault, const char*> kFaultNames{
    {Fault::notMountable, "not mountable"},
    {Fault::noDirectory, "directory being changed not listable"},
    {Fault::halfDirectory, "directory being changed lacks entries"},
    {Fault::noFile, "name being changed not openable"},
    {Fault::exchanged, "name being changed shows another's"},
    {Fault::moved, "file being moved has neither name"},
    {Fault::unreadable, "anything else unreadable"},
    {Fault::lost, "lost"},
    {Fault::damaged, "damaged"},
    {Fault::unexpected, "unexpected"},
    {Fault::notAtomic, "not as at any one moment"},
    {Fault::inconsistent, "an independent check complains"}};

namespace {

template<typename Key>
void addCounts(std::map<Key, std::uint64_t>& counts, const std::map<Key, std::uint64_t>& more) {
    for (const auto& [key, number] : more) {
        counts[key] += number;
    }
}

} // namespace

std::string CrashReport::describe() const {
    std::string text;
    for (const auto& [fault, counts] : faults) {
        text += std::string(kFaultNames.at(fault)) + "\n";
    }
    for (const std::string& example : examples) {
        text += example + "\n";
    }
    return text;
}

void CrashReport::add(const CrashReport& other) {
    scripts += other.scripts;
    cutPoints += other.cutPoints;
    persisted += other.persisted;
    checked += other.checked;
    addCounts(images, other.images);
    addCounts(completed, other.completed);
    addCounts(complaints, other.complaints);
    for (const auto& [fault, counts] : other.faults) {
        addCounts(faults[fault], counts);
    }
    examples.insert(examples.end(), other.examples.begin(), other.examples.end());
    examples.resize(std::min(examples.size(), kExamplesMax));
}

} // namespace tavelin::test
