#include "core/journal/home_check.hpp"

#include "core/journal/page_reader.hpp"

#include <algorithm>

namespace tavelin {

namespace {

// Each sector by itself: a home write that a cut interrupted has left some of them new.
bool isExpected(const DevicePage& page, std::uint8_t lost,
                const std::vector<SectorSums>& expected) noexcept {
    const SectorSums found = sectorSums(page.data());
    for (std::size_t sector = 0; sector < kSectorsPerPage; ++sector) {
        const bool isLost = (lost >> sector & 1u) != 0;
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
