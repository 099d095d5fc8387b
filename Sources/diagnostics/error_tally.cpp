#include "diagnostics/error_tally.hpp"

#include "platform/checked.hpp"

#include <algorithm>
#include <utility>

namespace tavelin {

ErrorTally::ErrorTally(std::int64_t maxDetails) : maxDetails_(maxDetails) {}

void ErrorTally::record(std::int32_t code, std::string_view op) {
    MutexLock lock(lock_);
    checkedIncrement(counts_[code], "an error counter overflowed");
    // Errors of normal use would fill the few details before the first real failure.
    const bool usual = std::ranges::find(routine, code) != routine.end();
    if (!usual && std::cmp_less(first_.size(), maxDetails_)) {
        first_.push_back(std::string(op) + ':' + std::to_string(code));
    }
}

Fields ErrorTally::summary() const {
    MutexLock lock(lock_);
    Fields counts;
    for (const auto& [code, count] : counts_) {
        counts.emplace(std::to_string(code), count);
    }
    return {{"counts", std::move(counts)}, {"first", first_}};
}

void ErrorTally::reset() {
    MutexLock lock(lock_);
    counts_.clear();
    first_.clear();
}

ErrorTally& errorTally() {
    // Never destroyed: errors may still be recorded while the process exits.
    static ErrorTally& instance = *new ErrorTally;
    return instance;
}

} // namespace tavelin
