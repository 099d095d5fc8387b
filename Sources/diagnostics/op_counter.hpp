/// Counts how often each operation was entered since the last dump: a cheap picture of what the
/// file system does, without a log line per call.
#pragma once

#include "platform/mutex.hpp"

#include <cstdint>
#include <functional>
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

    /// Counts one call of the operation (its bare name, such as "enumerateDirectory"). On every
    /// request's path: no allocation for a name already known, and never a failure: without memory
    /// for a new name the call goes uncounted. A counter that overflows stops the process.
    void hit(std::string_view op) noexcept;

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
    using Counts = std::unordered_map<std::string, std::int64_t, Hash, std::equal_to<>>;

    Mutex lock_;
    Counts counts_ TAVELIN_GUARDED_BY(lock_);
};

} // namespace tavelin
