#include "core/journal/home_check.hpp"

#include "core/journal/page_reader.hpp"

#include <algorithm>

namespace tavelin {

namespace {

// Judges each sector by itself. A cut during a home write leaves some sectors of a page new and
// others old, and home writes of earlier records may have been lost in the drive's cache.
bool isExpected(const DevicePage& page, std::uint8_t lost,
                const std::vector<SectorSums>& expected) noexcept {
    const SectorSums found = sectorSums(page.data());
    for (std::size_t sector = 0; sector < kSectorsPerPage; ++sector) {
        // A sector that cannot be read has no content to lose, and writing it is what may make the
        // drive replace it.
        const bool isLost = (lost >> sector & 1u) != 0;
        // As it was before one of the records, or as one of them made it. Content that is in
        // neither set was written by another system after the session.
        const bool isKnown =
            std::any_of(expected.begin(), expected.end(),
                        [&](const SectorSums& sums) { return sums[sector] == found[sector]; });
        if (!isLost && !isKnown) {
            return false;
        }
    }
    return true;
}

} // namespace

std::int32_t findForeignPage(BlockDevice& device, const JournaledPages& pages,
                             std::optional<std::uint64_t>& foreign) noexcept {
    foreign.reset();
    for (const auto& [page, expected] : pages.expected) {
        DevicePage content;
        std::uint8_t lost = 0;
        // An error other than lost sectors is no answer to the question, so the replay fails and
        // can be tried again.
        if (const auto error = readPage(device, page, content, lost); error != 0) {
            return error;
        }
        if (!isExpected(content, lost, expected)) {
            foreign = page;
            return 0;
        }
    }
    return 0;
}

} // namespace tavelin
