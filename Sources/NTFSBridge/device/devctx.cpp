#include "NTFSBridge/device/devctx.hpp"

#include "NTFSBridge/device/block_io.hpp"
#include "platform/assert.hpp"

#include <algorithm>
#include <cstring>

namespace ntb {
namespace {

constexpr uint64_t page_size = page_cache::page_size;

// The part of a byte range that falls into one page.
struct page_part {
    page_part(uint64_t page, uint64_t count, uint64_t offset) noexcept
        : in_page(page * page_size < offset ? offset - page * page_size : 0),
          in_buffer(page * page_size + in_page - offset),
          length(std::min(page_size - in_page, count - in_buffer)) {}

    uint64_t in_page;
    uint64_t in_buffer;
    uint64_t length;
};

} // namespace

bool ntb_devctx::is_cacheable(uint64_t count, uint64_t offset) const noexcept {
    const uint64_t block = std::max<uint64_t>(io.block_size, 1);
    if (!cache.is_on() || block > page_size || page_size % block != 0 ||
        count > NTB_CACHED_BYTES_MAX || !is_within(offset, count, io.size)) {
        return false;
    }
    const uint64_t last = (offset + count - 1) / page_size;
    return is_within(last * page_size, page_size, io.size);
}

int32_t ntb_devctx::flush_overlap(uint64_t count, uint64_t offset) noexcept {
    if (cache.dirty_count() == 0) {
        return 0;
    }
    const uint64_t end = count <= UINT64_MAX - offset ? offset + count : UINT64_MAX;
    return cache.pc_flush_pages(offset / page_size, (end - 1) / page_size);
}

// Reads a run of pages that are not cached, caches them and hands out what the caller wants of
// them. A run he wants whole is read straight into his memory.
int32_t ntb_devctx::fetch_run(uint8_t* to, uint64_t count, uint64_t offset, uint64_t page,
                              uint64_t run) noexcept {
    TAVELIN_ASSERT(run > 0 && run <= page_cache::run_pages_max);
    const uint64_t start = page * page_size;
    const uint64_t end = start + run * page_size;
    const bool is_wanted_whole = start >= offset && end <= offset + count;
    uint8_t* const fetched = is_wanted_whole ? to + (start - offset) : cache.staging();
    if (const int32_t error = io_read(io, stats, fetched, start, end - start); error != 0) {
        return error;
    }
    stats->cacheMisses += run;
    for (uint64_t i = 0; i < run; ++i) {
        if (uint8_t* const slot = cache.pc_slot_for(page + i); slot != nullptr) {
            std::memcpy(slot, fetched + i * page_size, page_size);
        }
    }
    if (!is_wanted_whole) {
        const uint64_t from = std::max(start, offset);
        const uint64_t length = std::min(end, offset + count) - from;
        std::memcpy(to + (from - offset), fetched + (from - start), length);
    }
    return 0;
}

int32_t ntb_devctx::cached_read(uint8_t* to, uint64_t count, uint64_t offset) noexcept {
    const uint64_t last = (offset + count - 1) / page_size;
    for (uint64_t page = offset / page_size; page <= last;) {
        if (const uint8_t* const data = cache.pc_find(page); data != nullptr) {
            const page_part part(page, count, offset);
            std::memcpy(to + part.in_buffer, data + part.in_page, part.length);
            stats->cacheHits += 1;
            page += 1;
            continue;
        }
        uint64_t run = 1;
        while (page + run <= last && cache.pc_find(page + run) == nullptr) {
            run += 1;
        }
        if (const int32_t error = fetch_run(to, count, offset, page, run); error != 0) {
            return error;
        }
        page += run;
    }
    return 0;
}

int32_t ntb_devctx::read(uint8_t* to, uint64_t count, uint64_t offset) noexcept {
    TAVELIN_ASSERT(count > 0 && is_within(offset, count, io.size));
    if (is_cacheable(count, offset)) {
        return cached_read(to, count, offset);
    }
    if (const int32_t error = flush_overlap(count, offset); error != 0) {
        return error;
    }
    return io_read(io, stats, to, offset, count);
}

int32_t ntb_devctx::write_page(const uint8_t* from, uint64_t count, uint64_t page,
                               uint64_t in_page) noexcept {
    uint32_t slot = 0;
    uint8_t* data = cache.pc_find(page, &slot);
    if (data == nullptr) {
        uint8_t whole[page_size];
        const bool is_partial = count != page_size;
        if (is_partial) {
            const int32_t error = io_read(io, stats, whole, page * page_size, page_size);
            if (error != 0) {
                return error;
            }
            stats->cacheMisses += 1;
            undo.keep(page, whole);
        } else {
            undo.keep_uncached(page);
        }
        data = cache.pc_slot_for(page, &slot);
        if (data == nullptr) {
            // The write goes around the cache; only what was read can be put back.
            if (!is_partial) {
                undo.give_up();
            }
            return io_write(io, stats, from, page * page_size + in_page, count);
        }
        if (is_partial) {
            std::memcpy(data, whole, page_size);
        }
    } else {
        undo.keep(page, data);
    }
    std::memcpy(data + in_page, from, count);
    cache.mark_dirty(slot);
    return 0;
}

int32_t ntb_devctx::cached_write(const uint8_t* from, uint64_t count, uint64_t offset) noexcept {
    const uint64_t last = (offset + count - 1) / page_size;
    for (uint64_t page = offset / page_size; page <= last; ++page) {
        const page_part part(page, count, offset);
        const int32_t error = write_page(from + part.in_buffer, part.length, page, part.in_page);
        if (error != 0) {
            return error;
        }
    }
    stats->dirtyPages = cache.dirty_count();
    if (cache.dirty_count() > page_cache::dirty_pages_max) {
        return cache.pc_flush_pages(0, page_cache::last_page);
    }
    return 0;
}

// Pages of the range that are cached are clean here and stay so: the device has the same bytes.
void ntb_devctx::update_cached_pages(const uint8_t* from, uint64_t count,
                                     uint64_t offset) noexcept {
    const uint64_t last = (offset + count - 1) / page_size;
    for (uint64_t page = offset / page_size; page <= last; ++page) {
        if (uint8_t* const data = cache.pc_find(page); data != nullptr) {
            const page_part part(page, count, offset);
            std::memcpy(data + part.in_page, from + part.in_buffer, part.length);
        }
    }
}

int32_t ntb_devctx::write(const uint8_t* from, uint64_t count, uint64_t offset) noexcept {
    TAVELIN_ASSERT(count > 0 && read_only == 0);
    if (is_cacheable(count, offset)) {
        return cached_write(from, count, offset);
    }
    if (const int32_t error = flush_overlap(count, offset); error != 0) {
        return error;
    }
    if (const int32_t error = io_write(io, stats, from, offset, count); error != 0) {
        return error;
    }
    if (cache.is_on()) {
        update_cached_pages(from, count, offset);
    }
    return 0;
}

int32_t ntb_devctx::flush() noexcept {
    const int32_t error = cache.pc_flush_pages(0, page_cache::last_page);
    stats->dirtyPages = cache.dirty_count();
    return error;
}

} // namespace ntb
