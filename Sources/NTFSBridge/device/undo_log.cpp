#include "NTFSBridge/device/undo_log.hpp"

#include "NTFSBridge/device/block_io.hpp"
#include "platform/assert.hpp"

#include <cstring>
#include <new>

namespace ntb {

void undo_log::begin() noexcept {
    TAVELIN_ASSERT(!is_open_ && count_ == 0);
    if (!changes_) {
        // Allocated by the first operation and kept. Without memory add() gives up at the first
        // change, and an operation that fails cannot be undone.
        changes_.reset(new (std::nothrow) change[changes_max]());
        for (uint32_t i = 0; changes_ && i < page_cache::spare_count; ++i) {
            changes_[i].memory = cache_.spare(i);
        }
    }
    is_complete_ = true;
    is_open_ = true;
}

void undo_log::end() noexcept {
    TAVELIN_ASSERT(is_open_);
    // What a large operation needed beyond the cache's spare memory would hold up to 16 MiB for
    // nothing.
    for (uint32_t i = page_cache::spare_count; i < count_; ++i) {
        changes_[i].allocated.reset();
        changes_[i].memory = nullptr;
    }
    count_ = 0;
    is_complete_ = true;
    is_open_ = false;
}

undo_log::change* undo_log::add(uint64_t page, uint64_t in_page, uint64_t count) noexcept {
    TAVELIN_ASSERT(is_within(in_page, count, page_cache::page_size));
    // Only the state before the first change counts. The search goes backwards, as the library
    // writes one record or block several times in a row.
    for (uint32_t i = count_; i > 0; --i) {
        const change& earlier = changes_[i - 1];
        if (earlier.page == page && in_page >= earlier.from &&
            in_page + count <= uint64_t{earlier.from} + earlier.size) {
            return nullptr;
        }
    }
    // Half an undo would be worse than none: it would mix pages from before and after the
    // operation.
    if (!changes_ || count_ == changes_max) {
        give_up();
        return nullptr;
    }
    change* const added = &changes_[count_++];
    added->page = page;
    added->from = static_cast<uint32_t>(in_page);
    added->size = static_cast<uint32_t>(count);
    added->has_content = false; // until it is kept
    return added;
}

void undo_log::keep(uint64_t page, const uint8_t* before, uint64_t in_page,
                    uint64_t count) noexcept {
    // The library also writes outside operations: at the mount, at a sync and at the unmount.
    if (!is_open_) {
        return;
    }
    change* const added = add(page, in_page, count);
    if (added == nullptr) {
        return;
    }
    if (added->memory == nullptr) {
        added->allocated.reset(new (std::nothrow) uint8_t[page_cache::page_size]);
        added->memory = added->allocated.get();
    }
    if (added->memory == nullptr) {
        give_up();
        return;
    }
    added->has_content = true;
    std::memcpy(added->memory, before + in_page, count);
}

uint8_t* undo_log::keep_overwritten(uint64_t page, uint32_t slot, uint8_t* before) noexcept {
    if (!is_open_ || !changes_ || count_ >= page_cache::spare_count) {
        keep(page, before, 0, page_cache::page_size);
        return before;
    }
    change* const added = add(page, 0, page_cache::page_size);
    if (added == nullptr) {
        return before;
    }
    added->has_content = true;
    uint8_t* const memory = added->memory;
    added->memory = cache_.exchange(slot, memory);
    return memory;
}

void undo_log::keep_uncached(uint64_t page) noexcept {
    if (is_open_) {
        (void)add(page, 0, page_cache::page_size);
    }
}

int32_t undo_log::undo(const change& kept, const ntb_io& io, ntb_stats& stats) const noexcept {
    if (!kept.has_content) {
        // The page was overwritten without being read, so it is file data or a new index block. Its
        // cluster was free before the operation, or its file was being overwritten. Where it was
        // written back already, those bytes stay: nothing refers to them, or they are the
        // overwritten file's.
        cache_.pc_discard(kept.page);
        return 0;
    }
    constexpr uint64_t page_bytes = page_cache::page_size;
    const uint64_t offset = kept.page * page_bytes;
    uint32_t slot = 0;
    uint8_t* data = cache_.pc_find(kept.page, &slot);
    uint8_t whole[page_bytes];
    if (data == nullptr) {
        // An eviction has written the page back, with the change.
        if (kept.size != page_bytes) {
            if (const int32_t error = io_read(io, &stats, whole, offset, page_bytes); error != 0) {
                return error;
            }
        }
        std::memcpy(whole + kept.from, kept.memory, kept.size);
        data = cache_.pc_slot_for(kept.page, &slot);
        if (data == nullptr) {
            // No slot is to be had because the device refuses an eviction. Writing the old content
            // straight to its place is the only way left.
            return io_write(io, &stats, whole, offset, page_bytes);
        }
        std::memcpy(data, whole, page_bytes);
    } else {
        std::memcpy(data + kept.from, kept.memory, kept.size);
    }
    // Even if it was clean before: the operation's change may have been written back meanwhile, by
    // an eviction or at the dirty limit.
    cache_.mark_dirty(slot);
    return 0;
}

int32_t undo_log::restore(const ntb_io& io, ntb_stats& stats) const noexcept {
    TAVELIN_ASSERT(is_open_ && is_complete_);
    // Backwards: an entry has its part of the page as it was when those before it were changed
    // already.
    for (uint32_t i = count_; i > 0; --i) {
        if (const int32_t error = undo(changes_[i - 1], io, stats); error != 0) {
            return error;
        }
    }
    return 0;
}

} // namespace ntb
