// How the bridge names failures: 0 or a positive errno of the host.
#pragma once

#include <cerrno>
#include <cstdint>

namespace ntb {

// What errno says, or fallback where the library failed without setting it. Callers clear errno
// before the library call they ask about.
inline int32_t err_or(int32_t fallback) noexcept {
    return errno != 0 ? errno : fallback;
}

// The error of two steps that both had to run: the earlier one stands.
inline int32_t first_error(int32_t earlier, int32_t later) noexcept {
    return earlier != 0 ? earlier : later;
}

// The error of a named stream that does not exist. macOS has a number of its own for it.
#ifdef ENOATTR
inline constexpr int32_t no_such_attribute = ENOATTR;
#else
inline constexpr int32_t no_such_attribute = ENODATA;
#endif

} // namespace ntb
