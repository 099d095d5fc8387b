/// Reads pages of a device of which some sectors may be lost.
#pragma once

#include "core/block_device.hpp"
#include "core/journal/journal_record.hpp"

namespace tavelin {

/// The bytes of a page that the device has: fewer than a page at most for its last one.
[[nodiscard]] std::uint64_t pageBytes(const BlockDevice& device, std::uint64_t page) noexcept;

/// Reads a page; what the device lacks of it is zero. Where the read fails with EIO the page is
/// read block by block. Sectors that fail again are zero too, and have their bit set in `lost` (bit
/// 0 is the first sector). 0, or another error of the device; EIO when its boot sector cannot be
/// read either.
[[nodiscard]] std::int32_t readPage(BlockDevice& device, std::uint64_t page, DevicePage& content,
                                    std::uint8_t& lost) noexcept;

} // namespace tavelin
