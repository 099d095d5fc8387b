/// Which synchronise requests have to flush. Pure; any thread.
#pragma once

#include <cstdint>

namespace tavelin::Driver2 {

/// Whether a synchronise request with these FSKit flags must flush: all do but no-wait (2) and
/// delayed wait (4).
[[nodiscard]] bool syncMustFlush(std::int64_t rawFlags) noexcept;

} // namespace tavelin::Driver2
