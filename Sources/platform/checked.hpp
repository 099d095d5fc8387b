/// Stopping the process on broken invariants, and arithmetic that does so instead of wrapping.
/// Any thread may call anything here.
#pragma once

#include <concepts>
#include <string_view>

namespace tavelin {

/// Writes the message to standard error and the system log and aborts. For our own bugs only:
/// bad input, bad media and failing system calls are errors, not reasons to stop.
[[noreturn]] void fatal(std::string_view message) noexcept;

/// a + b; an overflow stops the process, naming `what`.
template<std::integral T>
[[nodiscard]] constexpr T checkedAdd(T a, T b, std::string_view what) {
    T sum;
    if (__builtin_add_overflow(a, b, &sum)) {
        fatal(what);
    }
    return sum;
}

/// a * b; an overflow stops the process, naming `what`.
template<std::integral T>
[[nodiscard]] constexpr T checkedMultiply(T a, T b, std::string_view what) {
    T product;
    if (__builtin_mul_overflow(a, b, &product)) {
        fatal(what);
    }
    return product;
}

/// Adds one to a counter; an overflow stops the process, naming `what`.
template<std::integral T>
constexpr void checkedIncrement(T& counter, std::string_view what) {
    counter = checkedAdd(counter, T{1}, what);
}

} // namespace tavelin
