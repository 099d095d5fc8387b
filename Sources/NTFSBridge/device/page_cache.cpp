#include "NTFSBridge/device/page_cache.hpp"

#include "NTFSBridge/device/block_io.hpp"
#include "platform/assert.hpp"

#include <algorithm>
#include <bit>
#include <cstring>
#include <new>
#include <utility>

namespace ntb {

namespace {

constexpr size_t pages_size =
    (size_t{page_cache::slot_count} + page_cache::spare_count) * page_cache::page_size;

// Writes to each of the system's pages, which are no smaller than ours. A read would not do: the
// system gives one shared page of zeros for memory that was only read.
void touch(void* memory, size_t size) noexcept {
    auto* const bytes = static_cast<volatile uint8_t*>(memory);
    for (size_t at = 0; at < size; at += page_cache::page_size) {
        bytes[at] = bytes[at]; // NOLINT(clang-diagnostic-self-assign): the write is wanted
    }
}

} // namespace

bool page_cache::enable() noexcept {
    // Everything at once, so that no later eviction or flush can fail for want of memory.
    slots_.reset(new (std::nothrow) ntb_cache_slot[slot_count]());
    pages_.reset(new (std::nothrow) uint8_t[pages_size]);
    data_.reset(new (std::nothrow) uint8_t*[slot_count]);
    dirty_pages_.reset(new (std::nothrow) dirty_page[slot_count]);
    staging_.reset(new (std::nothrow) uint8_t[uint64_t{run_pages_max} * page_size]);
    if (!slots_ || !pages_ || !data_ || !dirty_pages_ || !staging_) {
        // All or nothing: half a cache would need a check in each of its functions.
        slots_.reset();
        pages_.reset();
        data_.reset();
        dirty_pages_.reset();
        staging_.reset();
        return false;
    }
    for (uint32_t slot = 0; slot < slot_count; ++slot) {
        data_[slot] = pages_.get() + uint64_t{slot} * page_size;
    }
    is_on_ = true;
    return true;
}

void page_cache::populate() noexcept {
    if (is_on()) {
        touch(pages_.get(), pages_size);
        touch(dirty_pages_.get(), slot_count * sizeof(dirty_page));
        touch(staging_.get(), size_t{run_pages_max} * page_size);
    }
}

int page_cache::cmp_u64(const void* left, const void* right) noexcept {
    // The page number is the first member of what is compared, whatever the type.
    uint64_t a = 0;
    uint64_t b = 0;
    std::memcpy(&a, left, sizeof a);
    std::memcpy(&b, right, sizeof b);
    return (a > b) - (a < b);
}

uint32_t page_cache::slot_holding(uint64_t page) const noexcept {
    // Consecutive pages fall into consecutive sets, so a run of metadata spreads over the cache
    // instead of competing for one set.
    const uint32_t first = static_cast<uint32_t>(page % full_set_count) * way_count;
    for (uint32_t slot = first; slot < first + way_count; ++slot) {
        if (slots_[slot].page == page && slots_[slot].valid != 0) {
            return slot;
        }
    }
    return no_slot;
}

bool page_cache::has_dirty(uint64_t first, uint64_t last) const noexcept {
    for (uint64_t page = first; dirty_count_ > 0 && page <= last; ++page) {
        const uint32_t slot = slot_holding(page);
        if (slot != no_slot && slots_[slot].dirty != 0) {
            return true;
        }
    }
    return false;
}

uint32_t page_cache::victim_for(uint64_t page) const noexcept {
    const uint32_t first = static_cast<uint32_t>(page % full_set_count) * way_count;
    // The least recently used page of the set gives way, be it clean or dirty. pc_slot_for() writes
    // a dirty one back first.
    uint32_t oldest = first;
    for (uint32_t slot = first; slot < first + way_count; ++slot) {
        // A free slot costs nobody a page.
        if (slots_[slot].valid == 0) {
            return slot;
        }
        if (slots_[slot].use_stamp < slots_[oldest].use_stamp) {
            oldest = slot;
        }
    }
    return oldest;
}

int32_t page_cache::write_out(const uint8_t* bytes, uint32_t slot, uint64_t count) noexcept {
    const uint64_t offset = slots_[slot].page * page_size;
    const uint64_t length = count * page_size;
    if (slots_[slot].file_data == 0 || io_.write_data == nullptr) {
        return io_write(io_, &stats_, bytes, offset, length);
    }
    // Cached pages are whole pages of the device, so there is nothing to align or to cut.
    stats_.deviceWrites += 1;
    stats_.writeBytes += length;
    return io_.write_data(io_.context, bytes, offset, length);
}

void page_cache::set_dirty(uint32_t slot, bool is_dirty) noexcept {
    slots_[slot].dirty = is_dirty ? 1 : 0;
    const uint64_t bit = uint64_t{1} << slot % 64;
    uint64_t& bits = dirty_slots_[slot / 64];
    bits = is_dirty ? bits | bit : bits & ~bit;
}

void page_cache::make_clean(uint32_t slot) noexcept {
    TAVELIN_ASSERT(slots_[slot].dirty != 0 && dirty_count_ > 0);
    dirty_count_ -= 1;
    file_data_count_ -= slots_[slot].file_data;
    slots_[slot].file_data = 0;
    set_dirty(slot, false);
}

int32_t page_cache::write_back(uint32_t slot) noexcept {
    TAVELIN_ASSERT(slots_[slot].valid != 0 && slots_[slot].dirty != 0);
    // A page that could not be written stays dirty, so the next flush tries it again.
    const int32_t error = write_out(data_of(slot), slot, 1);
    if (error == 0) {
        make_clean(slot);
    }
    return error;
}

uint8_t* page_cache::use(uint32_t slot, uint32_t* slot_index) noexcept {
    TAVELIN_ASSERT(slot < slot_count && slots_[slot].valid != 0);
    // The clock wraps after four billion uses. Stamps then compare wrongly for a while, which
    // evicts pages that were used recently and harms nothing else.
    use_clock_ += 1;
    slots_[slot].use_stamp = use_clock_;
    if (slot_index != nullptr) {
        *slot_index = slot;
    }
    return data_of(slot);
}

uint8_t* page_cache::pc_find(uint64_t page, uint32_t* slot_index) noexcept {
    if (!is_on()) {
        return nullptr;
    }
    const uint32_t slot = slot_holding(page);
    return slot == no_slot ? nullptr : use(slot, slot_index);
}

uint8_t* page_cache::pc_slot_for(uint64_t page, uint32_t* slot_index) noexcept {
    if (!is_on()) {
        return nullptr;
    }
    uint32_t slot = slot_holding(page);
    if (slot == no_slot) {
        slot = victim_for(page);
        if (slots_[slot].valid != 0 && slots_[slot].dirty != 0 && write_back(slot) != 0) {
            // The error is dropped here on purpose: the page stays dirty, and the flush that
            // retries it reports.
            return nullptr;
        }
        slots_[slot] = {.page = page, .use_stamp = 0, .valid = 1, .dirty = 0, .file_data = 0};
    }
    return use(slot, slot_index);
}

void page_cache::mark_dirty(uint32_t slot_index) noexcept {
    TAVELIN_ASSERT(slot_index < slot_count && slots_[slot_index].valid != 0);
    TAVELIN_ASSERT(is_within(slots_[slot_index].page * page_size, page_size, io_.size));
    // The page may have another owner by now, and be metadata.
    file_data_count_ -= slots_[slot_index].file_data;
    slots_[slot_index].file_data = 0;
    if (slots_[slot_index].dirty == 0) {
        set_dirty(slot_index, true);
        dirty_count_ += 1;
    }
}

void page_cache::mark_file_data(uint64_t page) noexcept {
    const uint32_t slot = is_on() ? slot_holding(page) : no_slot;
    if (slot != no_slot && slots_[slot].dirty != 0 && slots_[slot].file_data == 0) {
        slots_[slot].file_data = 1;
        file_data_count_ += 1;
    }
}

uint8_t* page_cache::spare(uint32_t index) noexcept {
    return is_on() && index < spare_count ? pages_.get() + uint64_t{slot_count + index} * page_size
                                          : nullptr;
}

uint8_t* page_cache::exchange(uint32_t slot_index, uint8_t* memory) noexcept {
    TAVELIN_ASSERT(slot_index < slot_count && slots_[slot_index].valid != 0);
    TAVELIN_ASSERT(memory >= pages_.get() && memory < pages_.get() + pages_size);
    return std::exchange(data_[slot_index], memory);
}

void page_cache::pc_discard(uint64_t page) noexcept {
    const uint32_t slot = is_on() ? slot_holding(page) : no_slot;
    if (slot != no_slot) {
        // Called for pages that a failed operation wrote as a whole: their content must not reach
        // the device any more.
        if (slots_[slot].dirty != 0) {
            make_clean(slot);
        }
        slots_[slot] = {};
    }
}

// Lists the dirty pages of the range in ascending order and answers how many there are. A range of
// fewer pages than there are sets is looked up page by page, and comes out in order by itself.
uint64_t page_cache::collect_dirty(uint64_t first, uint64_t last) noexcept {
    TAVELIN_ASSERT(first <= last);
    uint64_t count = 0;
    if (last - first < full_set_count) {
        for (uint64_t page = first; page - first <= last - first && count < dirty_count_; ++page) {
            const uint32_t slot = slot_holding(page);
            if (slot != no_slot && slots_[slot].dirty != 0) {
                dirty_pages_[count++] = {.page = page, .slot = slot};
            }
        }
        return count;
    }
    for (uint32_t word = 0; word < dirty_slots_.size(); ++word) {
        for (uint64_t bits = dirty_slots_[word]; bits != 0; bits &= bits - 1) {
            const uint32_t slot = word * 64 + static_cast<uint32_t>(std::countr_zero(bits));
            if (slots_[slot].page >= first && slots_[slot].page <= last) {
                dirty_pages_[count++] = {.page = slots_[slot].page, .slot = slot};
            }
        }
    }
    // By place on the device: neighbours join into one write, and the device gets the writes in the
    // order that it serves fastest. The order has no part in crash safety. The journal makes a
    // flush atomic, and without one ntb_rename flushes what must be first.
    std::sort(
        dirty_pages_.get(), dirty_pages_.get() + count,
        [](const dirty_page& left, const dirty_page& right) { return cmp_u64(&left, &right) < 0; });
    return count;
}

// Number of listed pages from first on, before end, that follow each other on the device and are of
// one kind.
uint64_t page_cache::run_length(uint64_t first, uint64_t end) const noexcept {
    const uint64_t limit = std::min<uint64_t>(end - first, run_pages_max);
    uint64_t length = 1;
    while (length < limit &&
           dirty_pages_[first + length].page == dirty_pages_[first].page + length &&
           slots_[dirty_pages_[first + length].slot].file_data ==
               slots_[dirty_pages_[first].slot].file_data) {
        length += 1;
    }
    return length;
}

int32_t page_cache::write_run(const dirty_page* run, uint64_t count) noexcept {
    TAVELIN_ASSERT(count > 0 && count <= run_pages_max && count <= dirty_count_);
    // A single page is written from its slot, without a copy.
    if (count == 1) {
        return write_back(run->slot);
    }
    for (uint64_t i = 0; i < count; ++i) {
        // The device takes one piece of memory a call, and pages that are neighbours on it lie in
        // different sets of the cache.
        std::memcpy(staging_.get() + i * page_size, data_of(run[i].slot), page_size);
    }
    const int32_t error = write_out(staging_.get(), run->slot, count);
    // All or none: a run that failed may have been written in part, and is written again as a
    // whole.
    if (error == 0) {
        for (uint64_t i = 0; i < count; ++i) {
            make_clean(run[i].slot);
        }
    }
    return error;
}

int32_t page_cache::pc_flush_pages(uint64_t first, uint64_t last) noexcept {
    // Also the case of a cache that is off, which has no slots to look through.
    if (dirty_count_ == 0) {
        return 0;
    }
    const uint64_t count = collect_dirty(first, last);
    for (uint64_t at = 0; at < count;) {
        const uint64_t length = run_length(at, count);
        // Stops at the first failure. The device is likely to refuse the rest as well, and each
        // refusal may take seconds. What was not written is still dirty.
        if (const int32_t error = write_run(&dirty_pages_[at], length); error != 0) {
            return error;
        }
        at += length;
    }
    return 0;
}

// Thousands of slots after every operation: a fuzzer is not told of each comparison.
#if defined(__clang__)
__attribute__((no_sanitize("coverage")))
#endif
bool page_cache::is_consistent() const noexcept {
    uint64_t dirty = 0;
    uint64_t file_data = 0;
    const ntb_cache_slot* const slots = slots_.get();
    const uint64_t* const marks = dirty_slots_.data();
    for (uint32_t slot = 0; is_on() && slot < slot_count; ++slot) {
        const ntb_cache_slot& entry = slots[slot];
        if ((marks[slot / 64] >> slot % 64 & 1) != (entry.dirty != 0 ? 1 : 0)) {
            return false;
        }
        if (entry.valid == 0) {
            // A slot that holds no page has nothing to write back.
            if (entry.dirty != 0) {
                return false;
            }
            continue;
        }
        if (entry.file_data != 0 && entry.dirty == 0) {
            return false;
        }
        // Finding itself first proves both the right set and that there is no second copy.
        if (slot_holding(entry.page) != slot ||
            !is_within(entry.page * page_size, page_size, io_.size)) {
            return false;
        }
        dirty += entry.dirty;
        file_data += entry.file_data;
    }
    return dirty == dirty_count_ && file_data == file_data_count_;
}

} // namespace ntb
