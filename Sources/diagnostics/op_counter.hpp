/// Counts how often each operation was entered since the last dump: a cheap picture of what the
/// file system does, without a log line per call.
#pragma once

#include "platform/checked.hpp"
#include "platform/mutex.hpp"

#include <atomic>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <string_view>
#include <unordered_map>

namespace tavelin {

/// Any thread may call anything. The lock is a leaf: nothing is called while it is held, so it may
/// be taken under any other lock.
class OpCounter {
  public:
    /// The process's counter.
    [[nodiscard]] static OpCounter& shared();

    /// How often one operation was entered.
    class Count {
      public:
        /// On every request's path: one addition. A counter that overflows stops the process.
        void hit() noexcept {
            if (value_.fetch_add(1, std::memory_order_relaxed) ==
                std::numeric_limits<std::int64_t>::max()) {
                fatal("an operation counter overflowed");
            }
        }

      private:
        friend class OpCounter;
        std::atomic<std::int64_t> value_{0};
    };

    /// The count of an operation (its bare name, such as "enumerateDirectory"), for as long as the
    /// counter lives. Never fails: without memory for a new name its calls go unreported.
    [[nodiscard]] Count& count(std::string_view op) noexcept;

    /// Counts one call of an operation whose name is not known beforehand.
    void hit(std::string_view op) noexcept { count(op).hit(); }

    /// All counts, highest first, such as "lookupItem=120 getAttributes=87 read=3", and starts
    /// anew; empty when nothing was counted. Equal counts stand in no particular order.
    [[nodiscard]] std::string dumpAndReset();

  private:
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(std::string_view text) const {
            return std::hash<std::string_view>{}(text);
        }
    };
    using Counts = std::unordered_map<std::string, Count, Hash, std::equal_to<>>;

    Mutex lock_;
    /// Only grows: whoever counts holds on to the entries, which never move.
    Counts counts_ TAVELIN_GUARDED_BY(lock_);
    Count unreported_;
};

} // namespace tavelin
