#include "crash/crash_report.hpp"

#include <algorithm>
#include <iterator>

namespace tavelin::test {

const char* cutName(Cut cut) {
    static const std::map<Cut, const char*> names{{Cut::prefix, "in order"},
                                                  {Cut::torn, "torn at 512"},
                                                  {Cut::tornPages, "torn at 4096"},
                                                  {Cut::reordered, "reordered"},
                                                  {Cut::dropped, "dropped"}};
    return names.at(cut);
}

const char* faultName(Fault fault) {
    static const std::map<Fault, const char*> names{
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
    return names.at(fault);
}

bool CrashReport::isSound() const {
    return std::none_of(std::begin(kAllFaults), std::end(kAllFaults),
                        [&](Fault fault) { return count(fault) > 0; });
}

std::uint64_t CrashReport::count(Fault fault) const {
    std::uint64_t sum = 0;
    for (const auto& [cut, counts] : faults) {
        const auto at = counts.find(fault);
        sum += at == counts.end() ? 0 : at->second;
    }
    return sum;
}

void CrashReport::add(const CrashReport& other) {
    scripts += other.scripts;
    cutPoints += other.cutPoints;
    persisted += other.persisted;
    for (const auto& [cut, number] : other.images) {
        images[cut] += number;
    }
    checked += other.checked;
    for (const auto& [complaint, number] : other.complaints) {
        complaints[complaint] += number;
    }
    for (const auto& [cut, number] : other.completed) {
        completed[cut] += number;
    }
    for (const auto& [cut, counts] : other.faults) {
        for (const auto& [fault, number] : counts) {
            faults[cut][fault] += number;
        }
    }
    for (const std::string& example : other.examples) {
        if (examples.size() < kExamplesMax) {
            examples.push_back(example);
        }
    }
}

} // namespace tavelin::test
