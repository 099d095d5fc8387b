/// What the journal writes: pages of the device, with all it takes to know whether a power cut let
/// the whole of them through, and whether somebody else has written to their places since.
///
/// A record is a header of whole pages and then the content of each page it carries. One without
/// pages only says that records may follow it. The format, byte by byte, is in
/// docs/journal-format.md.
///
/// An entry of the list has the checksums of the sectors of a page as they were before the record
/// and as they are in it. A page of the device whose sectors have neither is not one that the
/// record replaces: another system has written to it.
///
/// A record also names pages of file data that were written straight to their home locations. It
/// does not carry their content, but says by checksums what it is: the record and these pages go to
/// the device before the same sync, so only a record whose pages have arrived was written whole.
///
/// On the disk the first 8 bytes of each page's content are combined with the session by exclusive
/// or: content that begins as a page of a Windows journal does must not be taken for one.
#pragma once

#include "core/journal/crc32c.hpp"
#include "core/journal/log_file.hpp"

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace tavelin {

using DevicePage = std::array<std::byte, LogFile::kPage>;
static_assert(sizeof(DevicePage) == kSectorBytes * kSectorsPerPage);
/// By page number (byte offset on the device / 4096). What a device that ends within its last page
/// does not have is zero.
using PageMap = std::map<std::uint64_t, std::unique_ptr<DevicePage>>;

/// One page of a record: where it belongs, and its content before and after by checksums. What a
/// named page was before is not known, and zero.
struct JournalEntry {
    std::uint64_t page = 0;
    SectorSums before{};
    SectorSums after{};
};

/// The fixed part of a header. A plain value; the functions below touch no device.
struct JournalRecord {
    /// The session has set the volume's dirty flag: whoever ends it clears the flag. Without it the
    /// flag is as another system left it.
    static constexpr std::uint16_t kSetsDirtyFlag = 1;
    /// A sync too long for one record goes on behind this one: what the volume holds with it may
    /// contradict itself, and whoever ends the session here leaves the flag set.
    static constexpr std::uint16_t kIsPart = 2;

    std::uint32_t pages = 0;    ///< carried
    std::uint16_t flags = 0;    ///< kSetsDirtyFlag, as in the other records, and kIsPart
    std::uint16_t named = 0;    ///< pages of file data, at home
    std::uint64_t serial = 0;   ///< of the volume
    std::uint64_t session = 0;  ///< random, the same in all records of a session
    std::uint64_t sequence = 0; ///< one more than that of the record before it
    std::uint32_t checksum = 0; ///< of the header

    /// Bytes that a header of so many entries has, and pages that it takes.
    [[nodiscard]] static std::uint64_t headerBytes(std::uint64_t entries) noexcept;
    [[nodiscard]] static std::uint64_t headerPages(std::uint64_t entries) noexcept {
        return (headerBytes(entries) + LogFile::kPage - 1) / LogFile::kPage;
    }
    /// Pages that a whole record takes.
    [[nodiscard]] static std::uint64_t length(std::uint64_t pages, std::uint64_t named) noexcept {
        return headerPages(pages + named) + pages;
    }
    [[nodiscard]] std::uint64_t headerPages() const noexcept {
        return headerPages(std::uint64_t{pages} + named);
    }
    [[nodiscard]] std::uint64_t length() const noexcept { return length(pages, named); }

    /// Whether a page begins as every header does, of whatever version.
    [[nodiscard]] static bool hasMagic(const std::byte* page) noexcept;
    /// The fixed part of a header, if it is one of this format.
    [[nodiscard]] static std::optional<JournalRecord> parse(const std::byte* header) noexcept;

    /// The header of a record of these pages, first those that it carries and then those that it
    /// names, its checksum included. Throws std::bad_alloc.
    [[nodiscard]] std::vector<std::byte> encode(std::span<const JournalEntry> entries) const;

    /// The list of `whole`, a record as it was on the disk, when it is what was written: both parts
    /// ascending, no page from `pageCount` on, and with the content that it says. The content in
    /// `whole` is then clear. Absent otherwise. Throws std::bad_alloc.
    [[nodiscard]] std::optional<std::vector<JournalEntry>> decode(std::span<std::byte> whole,
                                                                  std::uint64_t pageCount) const;

    /// The first bytes of a page's content as the record has them, or the other way round. They are
    /// hidden because a page may begin like a record of $LogFile's proper owner, who would take it
    /// for one.
    using Escaped = std::array<std::byte, 8>;
    [[nodiscard]] Escaped escaped(const std::byte* content) const noexcept;
};

} // namespace tavelin
