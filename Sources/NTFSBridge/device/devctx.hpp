// The device context: what the device table works on. Reading and writing any byte range of the
// device through the page cache. Knows nothing of libntfs-3g.
//
// Small transfers (up to 64 KiB) of whole device pages go through the cache. Everything else goes
// straight to the device, after the dirty pages it overlaps were written, so that bulk file data
// does not drive the metadata out.
#pragma once

#include "NTFSBridge/device/free_watch.hpp"
#include "NTFSBridge/device/page_cache.hpp"
#include "NTFSBridge/device/undo_log.hpp"

#include <algorithm>

namespace ntb {

struct ntb_devctx {
    // stats belongs to the volume handle and outlives the context. The cache is off until
    // cache.enable().
    ntb_devctx(const ntb_io& device, bool is_read_only, ntb_stats& counters) noexcept
        : io(device),
          read_only(is_read_only ? 1 : 0),
          stats(&counters),
          cache(io, counters),
          undo(cache),
          has_whole_pages_(page_cache::page_size % std::max<uint64_t>(device.block_size, 1) == 0) {}
    ntb_devctx(const ntb_devctx&) = delete;
    ntb_devctx& operator=(const ntb_devctx&) = delete;

    // Whether short transfers go through the cache at all.
    bool is_caching() const noexcept { return cache.is_on() && has_whole_pages_; }

    // Reads count bytes, which must be at least 1 and inside the device.
    [[nodiscard]] int32_t read(uint8_t* to, uint64_t count, uint64_t offset) noexcept;

    // Writes count bytes, at least 1. After a failure some of the range may have been written.
    [[nodiscard]] int32_t write(const uint8_t* from, uint64_t count, uint64_t offset) noexcept;

    // To be called when a range of bytes was written that has nothing but file data: those of its
    // whole pages that are dirty may go to the device before anything else does.
    void mark_file_data(uint64_t count, uint64_t offset) noexcept;

    // Writes every dirty page and refreshes the dirtyPages counter.
    [[nodiscard]] int32_t flush() noexcept;

    const ntb_io io;
    uint64_t position = 0; // bytes, for the calls that have no offset of their own
    // By request. The library may refuse writes on its own besides.
    const uint32_t read_only;
    // Survives a volume that is opened again, so that its counts go on.
    ntb_stats* const stats;
    page_cache cache;
    undo_log undo; // of the operation that is under way, if it may fail half-way
    free_watch freed;

  private:
    // Whether a transfer goes through the cache: short, and made of whole pages of the device only.
    bool is_cacheable(uint64_t count, uint64_t offset) const noexcept;
    [[nodiscard]] int32_t cached_read(uint8_t* to, uint64_t count, uint64_t offset) noexcept;
    [[nodiscard]] int32_t fetch_run(uint8_t* to, uint64_t count, uint64_t offset, uint64_t page,
                                    uint64_t run) noexcept;
    [[nodiscard]] int32_t cached_write(const uint8_t* from, uint64_t count,
                                       uint64_t offset) noexcept;
    // Changes a part of one page in the cache, and records its former content in the undo log.
    [[nodiscard]] int32_t write_page(const uint8_t* from, uint64_t count, uint64_t page,
                                     uint64_t in_page) noexcept;
    // Writes the dirty pages of a range before a transfer goes around the cache.
    [[nodiscard]] int32_t flush_overlap(uint64_t count, uint64_t offset) noexcept;
    // After a write around the cache: gives the cached pages of its range the same bytes.
    void update_cached_pages(const uint8_t* from, uint64_t count, uint64_t offset) noexcept;

    // Devices whose blocks are larger than a page, or do not divide it, have no cache: a page could
    // not be written back without bytes of its neighbours.
    const bool has_whole_pages_;
};

} // namespace ntb
