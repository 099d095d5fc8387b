#include "NTFSBridge/device/free_watch.hpp"

#include <algorithm>
#include <cstring>

namespace ntb {

namespace {

// Whether a bit that was set in `before` is clear in `after`. The library writes kilobytes of the
// bitmap for each cluster, so this goes word by word.
bool clears_a_bit(const uint8_t* before, const uint8_t* after, uint64_t count) noexcept {
    uint64_t cleared = 0;
    uint64_t at = 0;
    for (; at + sizeof cleared <= count; at += sizeof cleared) {
        uint64_t was = 0;
        uint64_t is = 0;
        std::memcpy(&was, before + at, sizeof was);
        std::memcpy(&is, after + at, sizeof is);
        cleared |= was & ~is;
    }
    for (; at < count; ++at) {
        cleared |= before[at] & ~uint64_t{after[at]};
    }
    return cleared != 0;
}

} // namespace

void free_watch::see_change(uint64_t offset, const uint8_t* before, const uint8_t* after,
                            uint64_t count) noexcept {
    for (const range& bitmap : ranges_) {
        const uint64_t from = std::max(offset, bitmap.offset);
        const uint64_t to = std::min(offset + count, bitmap.offset + bitmap.length);
        if (from < to && !has_seen_) {
            has_seen_ = before == nullptr ||
                        clears_a_bit(before + (from - offset), after + (from - offset), to - from);
        }
    }
}

} // namespace ntb
