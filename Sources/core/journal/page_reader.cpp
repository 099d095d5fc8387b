#include "core/journal/page_reader.hpp"

#include "platform/assert.hpp"

#include <algorithm>
#include <cerrno>

namespace tavelin {

static_assert(kSectorsPerPage <= 8, "a bit for each sector");

std::uint64_t pageBytes(const BlockDevice& device, std::uint64_t page) noexcept {
    TAVELIN_ASSERT(page * LogFile::kPage < device.size());
    // A device need not be a whole number of pages; its last page is then shorter.
    return std::min(LogFile::kPage, device.size() - page * LogFile::kPage);
}

std::int32_t readPage(BlockDevice& device, std::uint64_t page, DevicePage& content,
                      std::uint8_t& lost) noexcept {
    lost = 0;
    content.fill(std::byte{0});
    const std::uint64_t start = page * LogFile::kPage;
    const std::uint64_t length = pageBytes(device, page);
    // Any other error speaks of the device as a whole and not of sectors.
    if (const auto error = device.read(content.data(), start, length); error != EIO) {
        return error;
    }
    // No less than a sector, as checksums cover sectors, and no less than a block, as the device
    // reads blocks.
    const std::uint64_t block = std::max<std::uint64_t>(device.blockSize(), kSectorBytes);
    // A device that does not give its boot sector either is failing as a whole. Calling its sectors
    // lost would allow a replay to replace them all, and asking for each would take long.
    if (const auto error = device.read(content.data(), 0, block); error != 0) {
        return error;
    }
    content.fill(std::byte{0});
    for (std::uint64_t at = 0; at < length; at += block) {
        const std::uint64_t count = std::min(block, length - at);
        const std::int32_t error = device.read(content.data() + at, start + at, count);
        if (error != 0 && error != EIO) {
            return error;
        }
        // A lost block may be several sectors. Each counts as zero and has its bit, whatever the
        // failed read left in memory.
        for (std::uint64_t sector = at; error != 0 && sector < at + count; sector += kSectorBytes) {
            const auto index = sector / kSectorBytes;
            lost = static_cast<std::uint8_t>(lost | 1u << index);
            std::fill_n(content.begin() + static_cast<std::ptrdiff_t>(sector), kSectorBytes,
                        std::byte{0});
        }
    }
    return 0;
}

} // namespace tavelin
