// A write-back cache of a device's 4096-byte pages: set-associative, 1024 sets of 8 ways, 32 MiB.
//
// Page p (byte offset / 4096) lives in one of the eight slots of set p mod 1024. Within a set the
// least recently used page gives way. A dirty page is written back before its slot is reused, and
// becomes clean only after its write succeeded, so a failed write is retried by the next flush.
//
// Facts that hold between calls: a page is in at most one slot; dirty_count() is the number of
// slots that are valid and dirty; only whole pages of the device are cached.
//
// Not safe for use from two threads at a time; the volume's caller serialises.
#pragma once

#include "NTFSBridge/ntb.h"

#include <array>
#include <memory>

namespace ntb {

struct ntb_cache_slot {
    uint64_t page;      // byte offset / 4096; means nothing unless valid
    uint32_t use_stamp; // the use clock when the slot was last used
    uint8_t valid;
    uint8_t dirty;
    uint8_t file_data; // of a dirty page: all of it is, see mark_file_data
};

class page_cache {
  public:
    // The size of most volumes' clusters and of index blocks, so that one metadata write is mostly
    // one page.
    static constexpr uint32_t page_size = NTB_PAGE_BYTES;
    // Enough that pages of one remainder seldom push each other out, few enough to search one by
    // one.
    static constexpr uint32_t way_count = 8;
    static constexpr uint32_t full_set_count = 1024;
    static constexpr uint32_t slot_count = full_set_count * way_count;
    static constexpr uint32_t run_pages_max = 256; // longest single write of a flush: 1 MiB
    static constexpr uint32_t dirty_pages_max = NTB_DIRTY_PAGES_MAX; // above it a write flushes all
    static_assert(dirty_pages_max <= slot_count / 2, "half of the cache stays free for reading");
    static_assert(
        uint64_t{run_pages_max} * page_size > NTB_CACHED_BYTES_MAX,
        "a fetch of the longest cached transfer fits into the staging memory, be its ends "
        "aligned or not");
    // As the end of a range: every page from its first one on.
    static constexpr uint64_t last_page = UINT64_MAX;

    // Off until enable(). io and stats belong to the volume and outlive the cache.
    page_cache(const ntb_io& io, ntb_stats& stats) noexcept : io_(io), stats_(stats) {}
    page_cache(const page_cache&) = delete;
    page_cache& operator=(const page_cache&) = delete;

    // Allocates all that the cache will ever need, so that writing back never fails for want of
    // memory. When there is not enough the cache stays off and says false.
    bool enable() noexcept;
    bool is_on() const noexcept { return is_on_; }

    // Has the system back the cache's memory with real memory. What is cached stays as it is.
    void populate() noexcept;

    uint64_t dirty_count() const noexcept { return dirty_count_; }
    // How many of the dirty pages are file data, see mark_file_data.
    uint64_t file_data_count() const noexcept { return file_data_count_; }

    // Whether any page from first to last, both included, is dirty.
    bool has_dirty(uint64_t first, uint64_t last) const noexcept;

    // The page's bytes if it is cached, else null. A hit makes it the most recently used.
    uint8_t* pc_find(uint64_t page, uint32_t* slot_index = nullptr) noexcept;

    // The bytes of a slot that now holds the page. A newly taken slot is clean and its bytes are
    // the caller's to fill. Null when the cache is off or the page that should give way is dirty
    // and cannot be written: that page then stays cached and dirty.
    uint8_t* pc_slot_for(uint64_t page, uint32_t* slot_index = nullptr) noexcept;

    // To be called after the bytes of a slot were changed. The slot is the one that pc_find or
    // pc_slot_for answered, with no other call of the cache in between.
    void mark_dirty(uint32_t slot_index) noexcept;

    // To be called once a page was written that may go to the device before anything else does: see
    // write_data of ntb_io. That holds until the page is written again. A page that is not dirty
    // has been written back, and stays as it is.
    void mark_file_data(uint64_t page) noexcept;

    // Pages of memory that hold nothing, for exchange(). They stay the cache's. Null unless the
    // cache is on and `index` is below spare_count.
    static constexpr uint32_t spare_count = 64;
    uint8_t* spare(uint32_t index) noexcept;
    // Gives the slot other memory, a spare page or one that exchange() answered, and answers what
    // it had. The page's bytes are then the caller's to fill, as for a newly taken slot.
    uint8_t* exchange(uint32_t slot_index, uint8_t* memory) noexcept;

    // Forgets the page, and the changes of it that were not written back yet.
    void pc_discard(uint64_t page) noexcept;

    // Writes the dirty pages from first to last, both included, in page order, consecutive pages
    // together. Stops at the first failed write; that run and all later pages stay dirty.
    [[nodiscard]] int32_t pc_flush_pages(uint64_t first, uint64_t last) noexcept;

    // run_pages_max pages to work with, which pc_flush_pages overwrites and pc_slot_for leaves
    // alone. Null when the cache is off.
    uint8_t* staging() noexcept { return staging_.get(); }

    // Checks the facts above by walking every slot; for tests.
    bool is_consistent() const noexcept;

  private:
    struct dirty_page {
        uint64_t page;
        uint32_t slot;
    };
    static constexpr uint32_t no_slot = UINT32_MAX;

    // Compares the 64-bit numbers that both begin with: negative, 0 or positive.
    static int cmp_u64(const void* left, const void* right) noexcept;

    uint8_t* data_of(uint32_t slot) noexcept { return data_[slot]; }
    // The slot of a cached page, or no_slot. Does not count as a use.
    uint32_t slot_holding(uint64_t page) const noexcept;
    // The slot that a page takes when it is not cached: a free one of its set, else the one whose
    // use is longest ago.
    uint32_t victim_for(uint64_t page) const noexcept;
    // A dirty page is not any more.
    void make_clean(uint32_t slot) noexcept;
    // Writes one dirty page; it is clean only when that succeeded.
    [[nodiscard]] int32_t write_back(uint32_t slot) noexcept;
    // Stamps the slot as used now and answers its bytes.
    uint8_t* use(uint32_t slot, uint32_t* slot_index) noexcept;
    // Says in both places whether the slot's page is dirty.
    void set_dirty(uint32_t slot, bool is_dirty) noexcept;
    // Fills dirty_pages_ and answers how many entries there are.
    uint64_t collect_dirty(uint64_t first, uint64_t last) noexcept;
    uint64_t run_length(uint64_t first, uint64_t end) const noexcept;
    // Writes dirty pages of one kind that follow each other on the device.
    [[nodiscard]] int32_t write_out(const uint8_t* bytes, uint32_t slot, uint64_t count) noexcept;
    // The same from the slots of a run, in one call.
    [[nodiscard]] int32_t write_run(const dirty_page* run, uint64_t count) noexcept;

    const ntb_io& io_;
    ntb_stats& stats_;
    std::unique_ptr<ntb_cache_slot[]> slots_;
    std::unique_ptr<uint8_t[]> pages_;          // slot_count + spare_count of them
    std::unique_ptr<uint8_t*[]> data_;          // the page in pages_ that a slot has
    std::unique_ptr<dirty_page[]> dirty_pages_; // what a flush writes, by page number
    std::unique_ptr<uint8_t[]> staging_;
    // One bit a slot, set where the slot is dirty: a flush finds few dirty pages among many slots.
    std::array<uint64_t, slot_count / 64> dirty_slots_{};
    bool is_on_ = false;
    uint32_t use_clock_ = 0;
    uint64_t dirty_count_ = 0;
    uint64_t file_data_count_ = 0;
};

} // namespace ntb
