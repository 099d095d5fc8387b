/// CRC-32C (Castagnoli, polynomial 0x1edc6f41, reflected, as in RFC 3720 appendix B.4): what the
/// journal recognises the content of a page by.
///
/// Computed by the processor's own instruction where it has one, which is found out when the
/// program runs, else from tables. Both give the same numbers. Any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace tavelin {

/// Bytes of what a disk writes as a whole or not at all, and of what a checksum covers.
inline constexpr std::uint64_t kSectorBytes = 512;
inline constexpr std::size_t kSectorsPerPage = 8;

/// The checksums of the sectors of a page, in their order.
using SectorSums = std::array<std::uint32_t, kSectorsPerPage>;

/// The checksum of `length` bytes, or, given that of what stands before them, of both together.
[[nodiscard]] std::uint32_t crc32c(const std::byte* bytes, std::uint64_t length,
                                   std::uint32_t before = 0) noexcept;

/// Those of the sectors of a page of 4096 bytes.
[[nodiscard]] SectorSums sectorSums(const std::byte* page) noexcept;

/// The two implementations behind crc32c, for the test that compares them.
[[nodiscard]] std::uint32_t crc32cByTables(const std::byte* bytes, std::uint64_t length,
                                           std::uint32_t before) noexcept;
/// Whether the processor has the instruction. Without it crc32c works by tables.
[[nodiscard]] bool hasCRC32CInstruction() noexcept;

} // namespace tavelin
