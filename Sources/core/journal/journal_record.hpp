/// What the journal writes: pages of the device, with all it takes to know whether a power cut let
/// the whole of them through.
///
/// A record is a header of whole pages and then the content of each page it lists. The header, in
/// little endian:
///
///      0  "TavelinJ"
///      8  u32  CRC-32 of the header, this field being 0, and of all content
///     12  u32  number of pages
///     16  u64  serial number of the volume
///     24  u64  session: the same random number in all records between a mount and an unmount
///     32  u64  sequence number, each record's one more than that of the record before it
///     40  u64  a page number (byte offset on the device / 4096) for each page, ascending
///
/// On the disk the first 8 bytes of each page's content are combined with the session by exclusive
/// or: content that begins as a page of a Windows journal does must not be taken for one.
#pragma once

#include "core/journal/log_file.hpp"

#include <array>
#include <map>
#include <span>

namespace tavelin {

using DevicePage = std::array<std::byte, LogFile::kPage>;
/// By page number. What a device that ends within its last page does not have is zero.
using PageMap = std::map<std::uint64_t, std::unique_ptr<DevicePage>>;

struct JournalRecord {
    std::uint32_t pages = 0;
    std::uint64_t serial = 0;
    std::uint64_t session = 0;
    std::uint64_t sequence = 0;
    std::uint32_t checksum = 0;

    /// Pages that the header takes, and that the whole record takes.
    [[nodiscard]] static std::uint64_t headerPages(std::uint64_t pages) noexcept;
    [[nodiscard]] static std::uint64_t length(std::uint64_t pages) noexcept {
        return headerPages(pages) + pages;
    }

    /// The fixed part of a header, if it is one.
    [[nodiscard]] static std::optional<JournalRecord> parse(const std::byte* header) noexcept;

    /// The header of a record of the first pages of `content`, its checksum included.
    [[nodiscard]] std::vector<std::byte> encode(const PageMap& content) const;

    /// Whether `whole`, a record as it was on the disk, is what was written. Its content is then
    /// clear; the list is ascending and names no page from `pageCount` on.
    [[nodiscard]] bool decode(std::span<std::byte> whole, std::uint64_t pageCount) const noexcept;
    [[nodiscard]] static std::uint64_t pageNumber(const std::byte* header,
                                                  std::uint64_t index) noexcept;

    /// Hides the start of a page's content, or shows it again.
    void escape(std::byte* content) const noexcept;
};

} // namespace tavelin
