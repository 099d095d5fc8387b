#include "NTFSBridge/device/undo_log.hpp"

#include "NTFSBridge/device/block_io.hpp"
#include "platform/assert.hpp"

#include <cstring>
#include <new>

namespace ntb {

void undo_log::begin() noexcept {
    TAVELIN_ASSERT(!is_open_ && count_ == 0);
    if (!pages_) {
        // Allocated by the first operation and kept. Without memory add() gives up at the first
        // change, and an operation that fails cannot be undone.
        pages_.reset(new (std::nothrow) kept_page[pages_max]());
    }
    is_complete_ = true;
    is_open_ = true;
}

void undo_log::end() noexcept {
    TAVELIN_ASSERT(is_open_);
    // The page buffers of a usual operation are kept for the next one. Those of a large one would
    // hold up to 16 MiB for nothing.
    for (uint32_t i = retained_pages; i < count_; ++i) {
        pages_[i].content.reset();
    }
    count_ = 0;
    is_complete_ = true;
    is_open_ = false;
}

undo_log::kept_page* undo_log::add(uint64_t page) noexcept {
    // Only the state before the first change counts. The search goes backwards, as the library
    // writes one record or block several times in a row.
    for (uint32_t i = count_; i > 0; --i) {
        if (pages_[i - 1].page == page) {
            return nullptr;
        }
    }
    // Half an undo would be worse than none: it would mix pages from before and after the
    // operation.
    if (!pages_ || count_ == pages_max) {
        give_up();
        return nullptr;
    }
    kept_page* const added = &pages_[count_++];
    added->page = page;
    // keep() sets it once the content is copied. A buffer may be left over from an earlier
    // operation.
    added->has_content = false;
    return added;
}

void undo_log::keep(uint64_t page, const uint8_t* before) noexcept {
    // The library also writes outside operations: at the mount, at a sync and at the unmount.
    if (!is_open_) {
        return;
    }
    kept_page* const added = add(page);
    if (added == nullptr) {
        return;
    }
    if (!added->content) {
        added->content.reset(new (std::nothrow) uint8_t[page_cache::page_size]);
    }
    if (!added->content) {
        give_up();
        return;
    }
    added->has_content = true;
    std::memcpy(added->content.get(), before, page_cache::page_size);
}

void undo_log::keep_uncached(uint64_t page) noexcept {
    if (is_open_) {
        (void)add(page);
    }
}

int32_t undo_log::restore(page_cache& cache, const ntb_io& io, ntb_stats& stats) const noexcept {
    TAVELIN_ASSERT(is_open_ && is_complete_);
    for (uint32_t i = 0; i < count_; ++i) {
        const kept_page& kept = pages_[i];
        if (!kept.has_content) {
            // The page was overwritten without being read, so it is file data or a new index block.
            // Its cluster was free before the operation, or its file was being overwritten. Where
            // it was written back already, those bytes stay: nothing refers to them, or they are
            // the overwritten file's.
            cache.pc_discard(kept.page);
            continue;
        }
        // Marked dirty even if it was clean before: the operation's change may have been written
        // back meanwhile, by an eviction or at the dirty limit.
        uint32_t slot = 0;
        if (uint8_t* const data = cache.pc_slot_for(kept.page, &slot); data != nullptr) {
            std::memcpy(data, kept.content.get(), page_cache::page_size);
            cache.mark_dirty(slot);
            continue;
        }
        // No slot is to be had because the device refuses an eviction. Writing the old content
        // straight to its place is the only way left.
        const int32_t error = io_write(io, &stats, kept.content.get(),
                                       kept.page * page_cache::page_size, page_cache::page_size);
        if (error != 0) {
            return error;
        }
    }
    return 0;
}

} // namespace ntb
