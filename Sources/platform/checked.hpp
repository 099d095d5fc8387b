/// Stops the process on broken invariants, and arithmetic that stops it instead of wrapping.
///
/// A wrapped counter or size would pass every later check with a wrong value, and on a write path
/// the wrong value would reach the volume. The process ends instead, and the volume recovers as
/// after a crash. All functions may be called from any thread.
#pragma once

#include <concepts>
#include <string_view>

namespace tavelin {

/// Writes the message to standard error and to the system log, then calls abort(). Only a bug of
/// our own is a reason to call it. Bad input, a bad medium and a failing system call are errors
/// and are returned to the caller.
[[noreturn]] void fatal(std::string_view message) noexcept;

/// Returns a + b. The sum must be representable in T: an overflow calls fatal(what).
template<std::integral T>
[[nodiscard]] constexpr T checkedAdd(T a, T b, std::string_view what) {
    T sum;
    if (__builtin_add_overflow(a, b, &sum)) {
        fatal(what);
    }
    return sum;
}

/// Returns a * b. The product must be representable in T: an overflow calls fatal(what).
template<std::integral T>
[[nodiscard]] constexpr T checkedMultiply(T a, T b, std::string_view what) {
    T product;
    if (__builtin_mul_overflow(a, b, &product)) {
        fatal(what);
    }
    return product;
}

/// Adds one to a counter. The addition is not atomic: the caller holds the counter's lock. An
/// overflow calls fatal(what).
template<std::integral T>
constexpr void checkedIncrement(T& counter, std::string_view what) {
    counter = checkedAdd(counter, T{1}, what);
}

} // namespace tavelin
