/// Counts how often each operation was entered since the last dump: a cheap picture of the file
/// system's work, without a log line per call.
///
/// Each call site looks its counter up once and keeps the reference, so a request costs one atomic
/// addition and no lock.
#pragma once

#include "platform/checked.hpp"
#include "platform/lock_order.hpp"
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
    /// The process's counter. Lives until the process ends.
    [[nodiscard]] static OpCounter& shared();

    /// How often one operation was entered.
    class Count {
      public:
        /// On every request's path: one addition. A counter that overflows stops the process.
        /// Relaxed order is enough, because no other data is published through the counter.
        void hit() noexcept {
            if (value_.fetch_add(1, std::memory_order_relaxed) ==
                std::numeric_limits<std::int64_t>::max()) {
                fatal("an operation counter overflowed");
            }
        }

      private:
        friend class OpCounter;
        static_assert(std::atomic<std::int64_t>::is_always_lock_free, "hit() takes no lock");
        std::atomic<std::int64_t> value_{0};
    };

    /// The count of an operation (its bare name, such as "enumerateDirectory"). The reference is
    /// valid as long as the counter lives. Never fails: without memory for a new name the calls
    /// are counted but not reported.
    [[nodiscard]] Count& count(std::string_view op) noexcept;

    /// Counts one call of an operation whose name is not known beforehand.
    void hit(std::string_view op) noexcept { count(op).hit(); }

    /// Returns all counts, highest first, such as "lookupItem=120 getAttributes=87 read=3", and
    /// sets them to 0. Empty when nothing was counted. Equal counts stand in no particular order. A
    /// call that is counted meanwhile appears in this dump or in the next, never in both.
    [[nodiscard]] std::string dumpAndReset();

  private:
    /// Hashes std::string and std::string_view alike, so that a lookup makes no std::string.
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(std::string_view text) const {
            return std::hash<std::string_view>{}(text);
        }
    };
    using Counts = std::unordered_map<std::string, Count, Hash, std::equal_to<>>;

    /// Guards the map, not the counters in it.
    Mutex lock_ TAVELIN_ACQUIRED_AFTER(lock_order::devices);
    /// Only grows. Call sites keep references to the entries, which an unordered_map never moves.
    Counts counts_ TAVELIN_GUARDED_BY(lock_);
    /// Takes the hits of all operations that there was no memory to name.
    Count unreported_;
};

} // namespace tavelin
