#include "core/journal/home_check.hpp"

#include "core/journal/page_reader.hpp"

#include <algorithm>
#include <cerrno>
#include <new>
#include <span>
#include <utility>

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

// Whether all of the pages have the content that the entries say.
std::int32_t findMissingPage(BlockDevice& device, std::span<const JournalEntry> named,
                             bool& isMissing) noexcept {
    isMissing = false;
    for (auto next = named.begin(); next != named.end() && !isMissing; ++next) {
        const JournalEntry& entry = *next;
        DevicePage content;
        std::uint8_t lost = 0;
        if (const auto error = readPage(device, entry.page, content, lost); error != 0) {
            return error;
        }
        const SectorSums found = sectorSums(content.data());
        for (std::size_t sector = 0; sector < kSectorsPerPage; ++sector) {
            // A lost sector says nothing. If the record was promised it must not be dropped for it.
            const bool isLost = (lost >> sector & 1u) != 0;
            isMissing = isMissing || (!isLost && found[sector] != entry.after[sector]);
        }
    }
    return 0;
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

std::int32_t leaveOutUnfinished(BlockDevice& device, Journal& journal,
                                JournaledPages& pages) noexcept {
    bool isMissing = false;
    if (const auto error = findMissingPage(device, pages.named, isMissing);
        error != 0 || !isMissing) {
        return error;
    }
    try {
        JournaledPages without;
        if (const auto error = journal.readWithoutLast(pages.lastPosition, without); error != 0) {
            return error;
        }
        // What the homes of the last record's pages may have while none of it has gone home.
        JournaledPages probe;
        for (const JournalEntry& entry : pages.last) {
            const auto earlier = without.expected.find(entry.page);
            if (earlier != without.expected.end()) {
                probe.expected[entry.page] = earlier->second;
            }
            probe.expected[entry.page].push_back(entry.before);
        }
        std::optional<std::uint64_t> begun;
        const std::int32_t error = findForeignPage(device, probe, begun);
        if (error == 0 && !begun) {
            pages = std::move(without);
        }
        return error;
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

} // namespace tavelin
