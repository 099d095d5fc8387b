// Which failures a run over all failures of a kind tries.
#pragma once

#include <cstdint>

namespace tavelin::test {

// Sanitizers take ten times as long, and one failure in so many takes the same paths.
#ifdef TAVELIN_SANITIZE
inline constexpr std::uint64_t kFailureStride = 5;
#else
inline constexpr std::uint64_t kFailureStride = 1;
#endif

} // namespace tavelin::test
