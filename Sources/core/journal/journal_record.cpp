#include "core/journal/journal_record.hpp"

#include <algorithm>
#include <cstring>
#include <zlib.h>

namespace tavelin {

namespace {

constexpr char kMagic[] = {'T', 'a', 'v', 'e', 'l', 'i', 'n', 'J'};
constexpr std::uint64_t kAtChecksum = 8;
constexpr std::uint64_t kAtCount = 12;
constexpr std::uint64_t kAtSerial = 16;
constexpr std::uint64_t kAtSession = 24;
constexpr std::uint64_t kAtSequence = 32;
constexpr std::uint64_t kAtList = 40;
constexpr std::uint64_t kNumber = sizeof(std::uint64_t);

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

std::uint32_t continued(std::uint32_t checksum, const std::byte* bytes,
                        std::uint64_t length) noexcept {
    return static_cast<std::uint32_t>(
        crc32_z(checksum, reinterpret_cast<const Bytef*>(bytes), length));
}

} // namespace

std::uint64_t JournalRecord::headerPages(std::uint64_t pages) noexcept {
    return (kAtList + pages * kNumber + LogFile::kPage - 1) / LogFile::kPage;
}

std::optional<JournalRecord> JournalRecord::parse(const std::byte* header) noexcept {
    if (std::memcmp(header, kMagic, sizeof kMagic) != 0) {
        return std::nullopt;
    }
    return JournalRecord{.pages = static_cast<std::uint32_t>(get(header + kAtCount, 4)),
                         .serial = get(header + kAtSerial, 8),
                         .session = get(header + kAtSession, 8),
                         .sequence = get(header + kAtSequence, 8),
                         .checksum = static_cast<std::uint32_t>(get(header + kAtChecksum, 4))};
}

std::vector<std::byte> JournalRecord::encode(const PageMap& content) const {
    std::vector<std::byte> header(headerPages(pages) * LogFile::kPage);
    std::memcpy(header.data(), kMagic, sizeof kMagic);
    put(header.data() + kAtCount, pages, 4);
    put(header.data() + kAtSerial, serial, 8);
    put(header.data() + kAtSession, session, 8);
    put(header.data() + kAtSequence, sequence, 8);
    std::byte* entry = header.data() + kAtList;
    auto page = content.begin();
    for (std::uint32_t i = 0; i < pages; ++i, ++page, entry += kNumber) {
        put(entry, page->first, 8);
    }
    std::uint32_t sum = continued(0, header.data(), header.size());
    page = content.begin();
    for (std::uint32_t i = 0; i < pages; ++i, ++page) {
        sum = continued(sum, page->second->data(), LogFile::kPage);
    }
    put(header.data() + kAtChecksum, sum, 4);
    return header;
}

bool JournalRecord::decode(std::span<std::byte> whole, std::uint64_t pageCount) const noexcept {
    const std::uint64_t start = headerPages(pages) * LogFile::kPage;
    for (std::uint64_t at = start; at < whole.size(); at += LogFile::kPage) {
        escape(whole.data() + at);
    }
    put(whole.data() + kAtChecksum, 0, 4);
    if (continued(0, whole.data(), whole.size()) != checksum) {
        return false;
    }
    for (std::uint64_t i = 0; i < pages; ++i) {
        const std::uint64_t page = pageNumber(whole.data(), i);
        if (page >= pageCount || (i > 0 && page <= pageNumber(whole.data(), i - 1))) {
            return false;
        }
    }
    return true;
}

std::uint64_t JournalRecord::pageNumber(const std::byte* header, std::uint64_t index) noexcept {
    return get(header + kAtList + index * kNumber, 8);
}

void JournalRecord::escape(std::byte* content) const noexcept {
    put(content, get(content, 8) ^ session, 8);
}

} // namespace tavelin
