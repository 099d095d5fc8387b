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
    // Long transfers are file data, which would evict the metadata and is rarely wanted twice.
    if (!is_caching() || count > NTB_CACHED_BYTES_MAX || !is_within(offset, count, io.size)) {
        return false;
    }
    const uint64_t last = (offset + count - 1) / page_size;
    // A device may end inside its last page. That page cannot be cached, as a write-back takes a
    // whole one.
    return is_within(last * page_size, page_size, io.size);
}

int32_t ntb_devctx::flush_overlap(uint64_t count, uint64_t offset) noexcept {
    if (cache.dirty_count() == 0) {
        return 0;
    }
    // Writes are not checked against the device's end before this, so the sum may wrap.
    const uint64_t end = count <= UINT64_MAX - offset ? offset + count : UINT64_MAX;
    // A transfer around the cache must see what is dirty, or write over it and not be overwritten
    // by a later flush of older content.
    return cache.pc_flush_pages(offset / page_size, (end - 1) / page_size);
}

// Reads a run of pages that are not cached, caches them and copies out what the caller wants. The
// device is asked for whole pages even when the caller wants a few bytes: the library reads a
// record in pieces, and the next piece is then cached. Nothing is read ahead of the request.
int32_t ntb_devctx::fetch_run(uint8_t* to, uint64_t count, uint64_t offset, uint64_t page,
                              uint64_t run) noexcept {
    TAVELIN_ASSERT(run > 0 && run <= page_cache::run_pages_max);
    const uint64_t start = page * page_size;
    const uint64_t end = start + run * page_size;
    // The usual run lies inside the request. It is read straight into the caller's memory and
    // copied to the slots from there. A run with a partial page at an end goes through the staging
    // memory.
    const bool is_wanted_whole = start >= offset && end <= offset + count;
    uint8_t* const fetched = is_wanted_whole ? to + (start - offset) : cache.staging();
    if (const int32_t error = io_read(io, stats, fetched, start, end - start); error != 0) {
        return error;
    }
    stats->cacheMisses += run;
    for (uint64_t i = 0; i < run; ++i) {
        // No slot means that the page to evict is dirty and the device refuses its write. The read
        // has succeeded all the same, so this page is only not cached.
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
        // Consecutive misses are read in one call. A cached page ends the run: it may be dirty, and
        // the device's content would then be older.
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
    // The device must have the newest content of the range before it is read around the cache.
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
        // A page that is overwritten in part needs the rest of its content from the device. A page
        // that is overwritten as a whole does not, which saves a read for each new index block.
        uint8_t whole[page_size];
        const bool is_partial = count != page_size;
        if (is_partial) {
            const int32_t error = io_read(io, stats, whole, page * page_size, page_size);
            if (error != 0) {
                return error;
            }
            stats->cacheMisses += 1;
            // As it was before the operation, in case the operation fails half-way.
            undo.keep(page, whole, in_page, count);
            freed.see_change(page * page_size + in_page, whole + in_page, from, count);
        } else {
            undo.keep_uncached(page);
            freed.see_change(page * page_size, nullptr, from, count);
        }
        data = cache.pc_slot_for(page, &slot);
        if (data == nullptr) {
            // The write goes around the cache. What was read can be put back if the operation
            // fails. What was overwritten unread cannot, so the operation is no longer undone.
            if (!is_partial) {
                undo.give_up();
            }
            return io_write(io, stats, from, page * page_size + in_page, count);
        }
        if (is_partial) {
            std::memcpy(data, whole, page_size);
        }
    } else if (count == page_size) {
        freed.see_change(page * page_size, data, from, count);
        data = undo.keep_overwritten(page, slot, data);
    } else {
        undo.keep(page, data, in_page, count);
        freed.see_change(page * page_size + in_page, data + in_page, from, count);
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
    // Half of the slots may be dirty. Above that, sets fill with dirty pages and each miss would
    // wait for a write. With a journal the volume syncs between two operations long before
    // (NTFSVolume::flushIfNearCapacity), so this flush falls inside an operation only if that one
    // is very large.
    if (cache.dirty_count() > page_cache::dirty_pages_max) {
        return cache.pc_flush_pages(0, page_cache::last_page);
    }
    return 0;
}

// Copies a write that went around the cache into the pages that are cached. They are clean, as the
// overlap was flushed before, and stay so: the device has the same bytes.
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
    freed.see_change(offset, nullptr, from, count);
    // A dirty page of the range goes first. Written later, its older content would replace what
    // this write is about to bring.
    if (const int32_t error = flush_overlap(count, offset); error != 0) {
        return error;
    }
    if (const int32_t error = io_write(io, stats, from, offset, count); error != 0) {
        // Part of the range may have been written. A cached page of it would bring the old bytes
        // back with the next change to it. Past the device's end nothing is written.
        const bool is_inside = is_within(offset, count, io.size);
        for (uint64_t at = offset; is_inside && at < offset + count;
             at += page_size - at % page_size) {
            cache.pc_discard(at / page_size);
        }
        return error;
    }
    if (cache.is_on()) {
        update_cached_pages(from, count, offset);
    }
    return 0;
}

void ntb_devctx::mark_file_data(uint64_t count, uint64_t offset) noexcept {
    const uint64_t end = (offset + count) / page_size;
    for (uint64_t page = (offset + page_size - 1) / page_size; page < end; ++page) {
        cache.mark_file_data(page);
    }
}

int32_t ntb_devctx::flush() noexcept {
    const int32_t error = cache.pc_flush_pages(0, page_cache::last_page);
    stats->dirtyPages = cache.dirty_count();
    return error;
}

} // namespace ntb
