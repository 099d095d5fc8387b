#include "diagnostics/op_counter.hpp"

#include "platform/checked.hpp"

#include <algorithm>
#include <utility>
#include <vector>

namespace tavelin {

OpCounter& OpCounter::shared() {
    // Never destroyed: requests may still be counted while the process exits.
    static OpCounter& instance = *new OpCounter;
    return instance;
}

void OpCounter::hit(std::string_view op) noexcept {
    MutexLock lock(lock_);
    auto known = counts_.find(op);
    if (known == counts_.end()) {
        try {
            known = counts_.emplace(op, 0).first;
        } catch (const std::bad_alloc&) {
            return; // the count is lost, what it counts goes on
        }
    }
    checkedIncrement(known->second, "an operation counter overflowed");
}

std::string OpCounter::dumpAndReset() {
    Counts counts;
    {
        MutexLock lock(lock_);
        counts.swap(counts_);
    }
    std::vector<std::pair<std::string, std::int64_t>> sorted(counts.begin(), counts.end());
    std::ranges::stable_sort(sorted, std::ranges::greater{},
                             [](const auto& pair) { return pair.second; });
    std::string text;
    for (const auto& [op, count] : sorted) {
        if (!text.empty()) {
            text += ' ';
        }
        text += op + '=' + std::to_string(count);
    }
    return text;
}

} // namespace tavelin
