/// Counts the errors that requests were answered with, by number, and keeps the first few unusual
/// ones with their operation. Numbers are macOS's (platform/error_numbers.hpp). The summary goes
/// into the event log when a volume is deactivated or unloaded.
#pragma once

#include "diagnostics/field_value.hpp"
#include "platform/error_numbers.hpp"
#include "platform/lock_order.hpp"
#include "platform/mutex.hpp"

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace tavelin {

/// Any thread may call anything. The lock is a leaf: nothing is called while it is held, so it may
/// be taken under any other lock, and is, under the volume's, when a device fails.
class ErrorTally {
  public:
    /// Details kept by default. The first errors of a fault tell most; later ones follow from them.
    static constexpr std::int64_t kDefaultMaxDetails = 20;

    /// Errors of normal use (an absent name, a name that exists, a directory that is not empty, an
    /// extended attribute that is not set): counted, but never among the details.
    static constexpr std::array<std::int32_t, 4> routine{kENOENT, kEEXIST, kENOTEMPTY, kENOATTR};

    /// `maxDetails` bounds the number of details. Not negative.
    explicit ErrorTally(std::int64_t maxDetails = kDefaultMaxDetails);

    /// Counts one error of the operation `op`. The earliest unusual ones are kept as "op:code". A
    /// counter that overflows stops the process. Throws std::bad_alloc.
    void record(std::int32_t code, std::string_view op);

    /// {"counts": {code in decimal: count}, "first": ["op:code", ...]}, details in the order of
    /// their occurrence. Changes nothing.
    [[nodiscard]] Fields summary() const;

    /// Drops all counts and details. Called at a load, so that the errors of one volume do not
    /// appear in the summary of the next.
    void reset();

  private:
    const std::int64_t maxDetails_;
    mutable Mutex lock_ TAVELIN_ACQUIRED_AFTER(lock_order::devices);
    std::map<std::int32_t, std::int64_t> counts_ TAVELIN_GUARDED_BY(lock_);
    /// The first unusual errors, as "op:code".
    std::vector<std::string> first_ TAVELIN_GUARDED_BY(lock_);
};

/// The process's tally. Lives until the process ends.
[[nodiscard]] ErrorTally& errorTally();

} // namespace tavelin
