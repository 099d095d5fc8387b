#include "diagnostics/op_counter.hpp"

#include <algorithm>
#include <new>
#include <utility>
#include <vector>

namespace tavelin {

OpCounter& OpCounter::shared() {
    // Never destroyed: requests may still be counted while the process exits.
    static OpCounter& instance = *new OpCounter;
    return instance;
}

OpCounter::Count& OpCounter::count(std::string_view op) noexcept {
    const MutexLock held(lock_);
    const auto known = counts_.find(op);
    if (known != counts_.end()) {
        return known->second;
    }
    try {
        return counts_.try_emplace(std::string(op)).first->second;
    } catch (const std::bad_alloc&) {
        return unreported_; // the count is lost, what it counts goes on
    }
}

std::string OpCounter::dumpAndReset() {
    std::vector<std::pair<std::string, std::int64_t>> sorted;
    {
        const MutexLock held(lock_);
        for (auto& [op, count] : counts_) {
            // Reading and clearing is one step, so that no hit in between is lost.
            if (const std::int64_t hits = count.value_.exchange(0, std::memory_order_relaxed)) {
                sorted.emplace_back(op, hits);
            }
        }
    }
    // Sorted and formatted without the lock, because the first request of each kind
    // takes it.
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
