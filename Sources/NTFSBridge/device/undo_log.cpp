#include "NTFSBridge/device/undo_log.hpp"

#include "NTFSBridge/device/block_io.hpp"
#include "platform/assert.hpp"

#include <cstring>
#include <new>

namespace ntb {

void undo_log::begin() noexcept {
    TAVELIN_ASSERT(!is_open_ && count_ == 0);
    if (!pages_) {
        // Without memory every change of the operation counts as one that cannot be taken back.
        pages_.reset(new (std::nothrow) kept_page[pages_max]());
    }
    is_complete_ = true;
    is_open_ = true;
}

void undo_log::end() noexcept {
    TAVELIN_ASSERT(is_open_);
    for (uint32_t i = retained_pages; i < count_; ++i) {
        pages_[i].content.reset();
    }
    count_ = 0;
    is_complete_ = true;
    is_open_ = false;
}

undo_log::kept_page* undo_log::add(uint64_t page) noexcept {
    // Backwards: the library writes one record or block several times in a row.
    for (uint32_t i = count_; i > 0; --i) {
        if (pages_[i - 1].page == page) {
            return nullptr;
        }
    }
    if (!pages_ || count_ == pages_max) {
        give_up();
        return nullptr;
    }
    kept_page* const added = &pages_[count_++];
    added->page = page;
    added->has_content = false;
    return added;
}

void undo_log::keep(uint64_t page, const uint8_t* before) noexcept {
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
            // It was overwritten without being read, so it is file data or a new block. Where it
            // was written back already its cluster is free again, or held data being overwritten.
            cache.pc_discard(kept.page);
            continue;
        }
        // Dirty even if it was clean before: its change may have been written back meanwhile.
        uint32_t slot = 0;
        if (uint8_t* const data = cache.pc_slot_for(kept.page, &slot); data != nullptr) {
            std::memcpy(data, kept.content.get(), page_cache::page_size);
            cache.mark_dirty(slot);
            continue;
        }
        const int32_t error = io_write(io, &stats, kept.content.get(),
                                       kept.page * page_cache::page_size, page_cache::page_size);
        if (error != 0) {
            return error;
        }
    }
    return 0;
}

} // namespace ntb
