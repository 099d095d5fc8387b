#include "core/journal/home_sums.hpp"

#include "core/journal/log_file.hpp"
#include "platform/assert.hpp"

#include <new>

namespace tavelin {

static_assert((HomeSums::kPagesMax & (HomeSums::kPagesMax - 1)) == 0, "cheap to divide by");

void HomeSums::enable() noexcept {
    try {
        slots_.assign(kPagesMax, Slot{});
    } catch (const std::bad_alloc&) {
        slots_.clear(); // records then read what they replace
    }
}

void HomeSums::note(std::uint64_t page, const std::byte* content) noexcept {
    if (!slots_.empty()) {
        note(page, sectorSums(content));
    }
}

void HomeSums::note(std::uint64_t page, const SectorSums& sums) noexcept {
    TAVELIN_ASSERT(page != kNoPage);
    if (!slots_.empty()) {
        // Two pages of one slot take turns. The loser's home location is read again when it is
        // replaced.
        slots_[page % kPagesMax] = {page, sums};
    }
}

void HomeSums::forget(std::uint64_t offset, std::uint64_t length) noexcept {
    TAVELIN_ASSERT(length > 0);
    const std::uint64_t last = (offset + length - 1) / LogFile::kPage;
    for (std::uint64_t page = offset / LogFile::kPage; !slots_.empty() && page <= last; ++page) {
        Slot& slot = slots_[page % kPagesMax];
        // The slot may hold another page of the same remainder, which this write does not touch.
        slot.page = slot.page == page ? kNoPage : slot.page;
    }
}

const SectorSums* HomeSums::find(std::uint64_t page) const noexcept {
    // Unknown is always a safe answer: the caller reads the home location.
    if (slots_.empty() || slots_[page % kPagesMax].page != page) {
        return nullptr;
    }
    return &slots_[page % kPagesMax].sums;
}

} // namespace tavelin
