/// Counts the errors that were answered, by number, and keeps the first few unusual ones with the
/// operation that met them. Numbers are macOS's (platform/error_numbers.hpp).
#pragma once

#include "diagnostics/field_value.hpp"
#include "platform/error_numbers.hpp"
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
    static constexpr std::int64_t kDefaultMaxDetails = 20;

    /// Errors of normal use (an absent name, a name that exists, a directory that is not empty, an
    /// extended attribute that is not set): counted, but never among the details.
    static constexpr std::array<std::int32_t, 4> routine{kENOENT, kEEXIST, kENOTEMPTY, kENOATTR};

    /// `maxDetails` bounds how many details are kept.
    explicit ErrorTally(std::int64_t maxDetails = kDefaultMaxDetails);

    /// Counts one error of the operation. The earliest unusual ones are kept as "op:code". A
    /// counter that overflows stops the process.
    void record(std::int32_t code, std::string_view op);

    /// {"counts": {code in decimal: count}, "first": ["op:code", ...]}
    [[nodiscard]] Fields summary() const;

    /// Forgets all.
    void reset();

  private:
    const std::int64_t maxDetails_;
    mutable Mutex lock_;
    std::map<std::int32_t, std::int64_t> counts_ TAVELIN_GUARDED_BY(lock_);
    std::vector<std::string> first_ TAVELIN_GUARDED_BY(lock_);
};

/// The process's tally.
[[nodiscard]] ErrorTally& errorTally();

} // namespace tavelin
