#include "core/journal/journal_record.hpp"

#include "platform/assert.hpp"

#include <algorithm>
#include <cstring>

namespace tavelin {

namespace {

// Offsets and sizes of the fixed part and of an entry of the list, in bytes. All numbers are little
// endian, so that a disk may go from one host to another between cut and replay.
constexpr char kMagic[] = {'T', 'a', 'v', 'e', 'l', 'i', 'n', 'J'};
// A record of any other version is not valid, so changing the format needs no code for the old one
// beyond a raised number.
constexpr std::uint32_t kFormatVersion = 3;
constexpr std::uint64_t kAtChecksum = 8;
constexpr std::uint64_t kAtVersion = 12;
constexpr std::uint64_t kAtCount = 16;
constexpr std::uint64_t kAtFlags = 20;
constexpr std::uint64_t kAtNamed = 22;
constexpr std::uint64_t kAtSerial = 24;
constexpr std::uint64_t kAtSession = 32;
constexpr std::uint64_t kAtSequence = 40;
constexpr std::uint64_t kAtList = 48;
constexpr std::uint64_t kSumBytes = sizeof(std::uint32_t);
constexpr std::uint64_t kEntryBytes = 8 + 2 * kSectorsPerPage * kSumBytes;
static_assert(kEntryBytes == 72, "as docs/journal-format.md has it");
static_assert(kAtList <= kSectorBytes, "the header of a record without pages is one sector");

// Byte by byte: entries are not aligned for their integers, and the host's order must not show.
void put(std::byte* to, std::uint64_t number, unsigned size) noexcept {
    for (unsigned i = 0; i < size; ++i) {
        to[i] = static_cast<std::byte>(number >> (8 * i));
    }
}

std::uint64_t get(const std::byte* from, unsigned size) noexcept {
    std::uint64_t number = 0;
    for (unsigned i = size; i > 0; --i) {
        number = number << 8 | std::to_integer<std::uint64_t>(from[i - 1]);
    }
    return number;
}

std::byte* putSums(std::byte* to, const SectorSums& sums) noexcept {
    for (const std::uint32_t sum : sums) {
        put(to, sum, kSumBytes);
        to += kSumBytes;
    }
    return to;
}

SectorSums getSums(const std::byte* from) noexcept {
    SectorSums sums{};
    for (std::uint32_t& sum : sums) {
        sum = static_cast<std::uint32_t>(get(from, kSumBytes));
        from += kSumBytes;
    }
    return sums;
}

JournalEntry entryAt(const std::byte* header, std::uint64_t index) noexcept {
    const std::byte* const entry = header + kAtList + index * kEntryBytes;
    return {.page = get(entry, 8),
            .before = getSums(entry + 8),
            .after = getSums(entry + 8 + kSectorsPerPage * kSumBytes)};
}

} // namespace

std::uint64_t JournalRecord::headerBytes(std::uint64_t entries) noexcept {
    return kAtList + entries * kEntryBytes;
}

bool JournalRecord::hasMagic(const std::byte* page) noexcept {
    return std::memcmp(page, kMagic, sizeof kMagic) == 0;
}

std::optional<JournalRecord> JournalRecord::parse(const std::byte* header) noexcept {
    // Only what is needed to go on reading is judged here. decode() verifies the checksum, for
    // which the whole header must have been read.
    if (!hasMagic(header) || get(header + kAtVersion, 4) != kFormatVersion) {
        return std::nullopt;
    }
    return JournalRecord{.pages = static_cast<std::uint32_t>(get(header + kAtCount, 4)),
                         .flags = static_cast<std::uint16_t>(get(header + kAtFlags, 2)),
                         .named = static_cast<std::uint16_t>(get(header + kAtNamed, 2)),
                         .serial = get(header + kAtSerial, 8),
                         .session = get(header + kAtSession, 8),
                         .sequence = get(header + kAtSequence, 8),
                         .checksum = static_cast<std::uint32_t>(get(header + kAtChecksum, 4))};
}

std::vector<std::byte> JournalRecord::encode(std::span<const JournalEntry> entries) const {
    TAVELIN_ASSERT(entries.size() == std::uint64_t{pages} + named);
    // Zeroed up to the end of its last page, so that equal records have equal bytes.
    std::vector<std::byte> header(headerPages() * LogFile::kPage);
    std::memcpy(header.data(), kMagic, sizeof kMagic);
    put(header.data() + kAtVersion, kFormatVersion, 4);
    put(header.data() + kAtCount, pages, 4);
    put(header.data() + kAtFlags, flags, 2);
    put(header.data() + kAtNamed, named, 2);
    put(header.data() + kAtSerial, serial, 8);
    put(header.data() + kAtSession, session, 8);
    put(header.data() + kAtSequence, sequence, 8);
    std::byte* at = header.data() + kAtList;
    for (const JournalEntry& entry : entries) {
        put(at, entry.page, 8);
        at = putSums(putSums(at + 8, entry.before), entry.after);
    }
    // The content needs no checksum of its own: the list has those of every sector, and this one
    // covers the list. The field itself is still 0, as decode() makes it before it verifies.
    put(header.data() + kAtChecksum, crc32c(header.data(), headerBytes(entries.size())), 4);
    return header;
}

std::optional<std::vector<JournalEntry>> JournalRecord::decode(std::span<std::byte> whole,
                                                               std::uint64_t pageCount) const {
    const std::uint64_t count = std::uint64_t{pages} + named;
    const std::uint64_t start = headerPages() * LogFile::kPage;
    TAVELIN_ASSERT(whole.size() == start + pages * LogFile::kPage);
    // As it was when the checksum was computed.
    put(whole.data() + kAtChecksum, 0, 4);
    if (crc32c(whole.data(), headerBytes(count)) != checksum) {
        return std::nullopt;
    }
    // From here on the list is what was written. The page count is so, too, as it is under the
    // checksum.
    std::vector<JournalEntry> entries;
    entries.reserve(count);
    for (std::uint64_t i = 0; i < count; ++i) {
        const JournalEntry entry = entryAt(whole.data(), i);
        // A record written by us is ascending and inside the device. One that is not, though its
        // checksum is right, was made by somebody else, and a replay of it could write anywhere.
        const bool isAscending = i == 0 || i == pages || entry.page > entries.back().page;
        if (entry.page >= pageCount || !isAscending) {
            return std::nullopt;
        }
        entries.push_back(entry);
    }
    for (std::uint64_t i = 0; i < pages; ++i) {
        std::byte* const content = whole.data() + start + i * LogFile::kPage;
        // The checksums are of the plain content.
        const Escaped clear = escaped(content);
        std::memcpy(content, clear.data(), clear.size());
        if (sectorSums(content) != entries[i].after) {
            return std::nullopt;
        }
    }
    return entries;
}

JournalRecord::Escaped JournalRecord::escaped(const std::byte* content) const noexcept {
    Escaped bytes;
    put(bytes.data(), get(content, bytes.size()) ^ session, bytes.size());
    return bytes;
}

} // namespace tavelin
