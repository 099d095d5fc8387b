// What one operation changed in the page cache, so that it can be taken back.
//
// The library gives up half-way when a record needs an attribute list, an extension record or an
// index block that it cannot have, and leaves behind what it wrote until then. Between begin() and
// end() the log therefore keeps what each cached write replaces, unless an earlier entry has it.
// What is kept is put back from the last to the first.
//
// Bulk writes around the cache are not logged. They carry file data, into clusters that were free
// before or that the caller asked to be overwritten.
//
// Not safe for use from two threads at a time.
#pragma once

#include "NTFSBridge/device/page_cache.hpp"

#include <memory>

namespace ntb {

class undo_log {
  public:
    // An operation of more changes than this cannot be taken back. Whole pages are then 16 MiB.
    static constexpr uint32_t changes_max = 4096;

    explicit undo_log(page_cache& cache) noexcept : cache_(cache) {}
    undo_log(const undo_log&) = delete;
    undo_log& operator=(const undo_log&) = delete;

    // Begins an operation. Operations do not nest.
    void begin() noexcept;
    // Ends it: what it changed stays.
    void end() noexcept;
    bool is_open() const noexcept { return is_open_; }

    // To be called before `count` bytes from `in_page` on of a page of the cache change: keeps them
    // from `before`, the whole page. Does nothing outside an operation.
    void keep(uint64_t page, const uint8_t* before, uint64_t in_page, uint64_t count) noexcept;
    // As keep(), before the page in the slot is overwritten as a whole. Answers the memory to fill,
    // in which its former content need not be: where the log has memory at hand it exchanges it for
    // the slot's instead of copying a page that is about to go.
    [[nodiscard]] uint8_t* keep_overwritten(uint64_t page, uint32_t slot, uint8_t* before) noexcept;
    // To be called before a page that is not in the cache is overwritten there as a whole.
    void keep_uncached(uint64_t page) noexcept;
    // The operation makes a change that cannot be taken back.
    void give_up() noexcept { is_complete_ = false; }

    // Whether the operation changed anything so far, and whether all of it can be taken back.
    bool has_changes() const noexcept { return count_ != 0 || !is_complete_; }
    bool is_complete() const noexcept { return is_complete_; }

    // Puts everything kept back into the cache, dirty; drops the pages that were not in it. 0, or
    // the device's error where a page that left the cache meanwhile could not be had again, or
    // there was no slot for it and it could not be written either. The operation is still to be
    // ended.
    [[nodiscard]] int32_t restore(const ntb_io& io, ntb_stats& stats) const noexcept;

  private:
    // What the operation changed in a page. Without content the page was overwritten unread, and is
    // dropped from the cache instead of put back.
    struct change {
        uint64_t page;
        uint32_t from; // bytes into the page, where the content belongs
        uint32_t size;
        bool has_content;
        // page_size bytes, or null. The cache's spare memory in the first entries, which most
        // operations need no more of; in the others `allocated`.
        uint8_t* memory;
        std::unique_ptr<uint8_t[]> allocated;
    };

    // The entry for a part of a page that no other has yet, or null when one has it or there is no
    // room.
    change* add(uint64_t page, uint64_t in_page, uint64_t count) noexcept;
    // Puts one change back.
    [[nodiscard]] int32_t undo(const change& kept, const ntb_io& io,
                               ntb_stats& stats) const noexcept;

    page_cache& cache_;
    std::unique_ptr<change[]> changes_;
    uint32_t count_ = 0;
    bool is_open_ = false;
    bool is_complete_ = true;
};

} // namespace ntb
