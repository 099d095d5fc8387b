// What one operation changed in the page cache, so that it can be taken back.
//
// The library gives up half-way when a record needs an attribute list, an extension record or an
// index block that it cannot have, and leaves behind what it wrote until then. Between begin() and
// end() the log therefore keeps each page that a cached write changes, as it was before the first
// change.
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
    // An operation that changes more pages than this cannot be taken back: 16 MiB.
    static constexpr uint32_t pages_max = 4096;

    undo_log() = default;
    undo_log(const undo_log&) = delete;
    undo_log& operator=(const undo_log&) = delete;

    // Begins an operation. Operations do not nest.
    void begin() noexcept;
    // Ends it: what it changed stays.
    void end() noexcept;
    bool is_open() const noexcept { return is_open_; }

    // To be called before a page of the cache changes: keeps `before`, a whole page, unless the
    // page was kept by this operation already. Does nothing outside an operation.
    void keep(uint64_t page, const uint8_t* before) noexcept;
    // To be called before a page that is not in the cache is overwritten there as a whole.
    void keep_uncached(uint64_t page) noexcept;
    // The operation makes a change that cannot be taken back.
    void give_up() noexcept { is_complete_ = false; }

    // Whether the operation changed anything so far, and whether all of it can be taken back.
    bool has_changes() const noexcept { return count_ != 0 || !is_complete_; }
    bool is_complete() const noexcept { return is_complete_; }

    // Puts every kept page back into the cache, dirty; drops those that were not in it. 0, or the
    // device's error where there was no slot for a page and it could not be written either. The
    // operation is still to be ended.
    [[nodiscard]] int32_t restore(page_cache& cache, const ntb_io& io,
                                  ntb_stats& stats) const noexcept;

  private:
    // Most operations change fewer pages than this; their memory is kept for the next one.
    static constexpr uint32_t retained_pages = 64;

    // A page that the operation changed. Without content it was overwritten unread, and is dropped
    // from the cache instead of put back.
    struct kept_page {
        uint64_t page;
        bool has_content;
        std::unique_ptr<uint8_t[]> content; // page_size bytes once it was needed
    };

    // The entry for a page that has none yet, or null when it has one or there is no room.
    kept_page* add(uint64_t page) noexcept;

    std::unique_ptr<kept_page[]> pages_;
    uint32_t count_ = 0;
    bool is_open_ = false;
    bool is_complete_ = true;
};

} // namespace ntb
