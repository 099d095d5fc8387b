// NTFS counts time in units of 100 ns since 1601-01-01 UTC; everybody above the bridge counts
// seconds and nanoseconds since 1970-01-01.
#pragma once

#include "NTFSBridge/library.hpp"
#include "NTFSBridge/ntb.h"

#include <algorithm>

namespace ntb {

// 100 ns each.
inline constexpr int64_t ntfs_units_per_second = 10'000'000;
// 1970-01-01 in these units: 134,774 days after 1601-01-01.
inline constexpr int64_t ntfs_time_of_1970 = 116444736000000000;

// Seconds are rounded toward zero. A time before 1970 that is no whole second gets 0 nanoseconds,
// which keeps them from being negative.
inline ntb_time to_unix_time(ntfs_time time) noexcept {
    // Any 64 bits can be on a volume, so the difference may wrap.
    const auto units =
        static_cast<int64_t>(static_cast<uint64_t>(sle64_to_cpu(time)) - ntfs_time_of_1970);
    const int64_t rest = units % ntfs_units_per_second;
    return {.seconds = units / ntfs_units_per_second, .nanoseconds = rest < 0 ? 0 : rest * 100};
}

// Times beyond what NTFS can hold become the nearest it can: its first is 1601-01-01. A negative
// count would be read as a time tens of thousands of years ahead.
inline ntfs_time to_ntfs_time(const ntb_time& time) noexcept {
    int64_t units = 0;
    if (__builtin_mul_overflow(time.seconds, ntfs_units_per_second, &units) ||
        __builtin_add_overflow(units, time.nanoseconds / 100, &units) ||
        __builtin_add_overflow(units, ntfs_time_of_1970, &units)) {
        units = time.seconds < 0 ? 0 : INT64_MAX;
    }
    units = std::max(units, int64_t{0});
    return static_cast<ntfs_time>(cpu_to_sle64(units));
}

} // namespace ntb
