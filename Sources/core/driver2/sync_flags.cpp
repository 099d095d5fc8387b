#include "core/driver2/sync_flags.hpp"

namespace tavelin::Driver2 {

namespace {

// The low bits of FSKit's synchronise flags.
constexpr std::int64_t kSyncKindMask = 7;
constexpr std::int64_t kSyncNoWait = 2;
constexpr std::int64_t kSyncDelayedWait = 4;

} // namespace

bool syncMustFlush(std::int64_t rawFlags) noexcept {
    const std::int64_t kind = rawFlags & kSyncKindMask;
    return kind != kSyncNoWait && kind != kSyncDelayedWait;
}

} // namespace tavelin::Driver2
