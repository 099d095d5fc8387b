#include "NTFSBridge/device/free_watch.hpp"

#include <algorithm>

namespace ntb {

void free_watch::see_change(uint64_t offset, const uint8_t* before, const uint8_t* after,
                            uint64_t count) noexcept {
    for (const range& bitmap : ranges_) {
        const uint64_t from = std::max(offset, bitmap.offset);
        const uint64_t to = std::min(offset + count, bitmap.offset + bitmap.length);
        for (uint64_t at = from; at < to && !has_seen_; ++at) {
            const uint8_t was = before != nullptr ? before[at - offset] : 0xff;
            // Bits that were set and are not any more.
            has_seen_ = (was & ~after[at - offset]) != 0;
        }
    }
}

} // namespace ntb
