#include "crash/verdict.hpp"

#include <algorithm>
#include <iterator>

namespace tavelin::test {

const char* cutName(Cut cut) {
    switch (cut) {
    case Cut::prefix:
        return "in order";
    case Cut::torn:
        return "torn at 512";
    case Cut::tornPages:
        return "torn at 4096";
    case Cut::reordered:
        return "reordered";
    case Cut::dropped:
        break;
    }
    return "dropped";
}

const char* faultName(Fault fault) {
    switch (fault) {
    case Fault::notMountable:
        return "not mountable";
    case Fault::noFolder:
        return "folder being changed not listable";
    case Fault::halfFolder:
        return "folder being changed lacks entries";
    case Fault::noFile:
        return "name being changed not openable";
    case Fault::exchanged:
        return "name being changed shows another's";
    case Fault::moved:
        return "file being moved has neither name";
    case Fault::unreadable:
        return "anything else unreadable";
    case Fault::lost:
        return "lost";
    case Fault::damaged:
        return "damaged";
    case Fault::strange:
        return "strange";
    case Fault::between:
        return "not as at any one moment";
    case Fault::inconsistent:
        break;
    }
    return "an independent check complains";
}

bool Verdict::isSound() const {
    return std::none_of(std::begin(kAllFaults), std::end(kAllFaults),
                        [&](Fault fault) { return count(fault) > 0; });
}

std::uint64_t Verdict::count(Fault fault) const {
    std::uint64_t sum = 0;
    for (const auto& [cut, counts] : faults) {
        const auto at = counts.find(fault);
        sum += at == counts.end() ? 0 : at->second;
    }
    return sum;
}

void Verdict::add(const Verdict& other) {
    scripts += other.scripts;
    cutPoints += other.cutPoints;
    promises += other.promises;
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
        if (examples.size() < kMostExamples) {
            examples.push_back(example);
        }
    }
}

} // namespace tavelin::test
