/// The assertion of the project: states a fact that the code itself makes true.
///
/// TAVELIN_ASSERT(expression) stops the process with the expression and its place when it is false.
/// It is for our own bugs only. Bytes of a volume, arguments of a program and results of system
/// calls are input: they are checked in every build and answered with an error.
///
/// Assertions are on in debug builds (without NDEBUG) and wherever a sanitizer is built in. In all
/// other builds the expression is compiled and never evaluated, so it must have no side effects.
/// kAssertions tells which it is, for checks that are more than an expression. Any thread.
#pragma once

#include "platform/checked.hpp"

#if defined(TAVELIN_SANITIZE) || !defined(NDEBUG)
#define TAVELIN_ASSERTIONS 1
#else
#define TAVELIN_ASSERTIONS 0
#endif

namespace tavelin {

inline constexpr bool kAssertions = TAVELIN_ASSERTIONS != 0;

/// Stops the process with "FILE:LINE: not true: EXPRESSION".
[[noreturn]] void assertionFailed(const char* expression, const char* file, int line) noexcept;

} // namespace tavelin

#if TAVELIN_ASSERTIONS
#define TAVELIN_ASSERT(...)                                                                        \
    ((__VA_ARGS__) ? static_cast<void>(0)                                                          \
                   : ::tavelin::assertionFailed(#__VA_ARGS__, __FILE__, __LINE__))
#else
#define TAVELIN_ASSERT(...) static_cast<void>(sizeof(static_cast<bool>(__VA_ARGS__)))
#endif
