// The boot sector of an NTFS volume: where everything else is found.
#pragma once

#include "platform/assert.hpp"

#include <cstdint>
#include <span>

namespace ntb {

// The fields that the volume is found by, in bytes and clusters. Values that parse_boot_sector has
// accepted are consistent with each other; whether the device has that many sectors is for
// read_boot_sector to say.
struct boot_sector {
    uint64_t sector_size = 0;      // bytes, a power of two from 256 to 4096
    uint64_t cluster_size = 0;     // bytes, a power of two up to 2 MiB
    uint64_t sectors = 0;          // of the volume, without the backup boot sector behind it
    uint64_t record_size = 0;      // bytes of a file record, a power of two from 1024 to 4096
    uint64_t index_block_size = 0; // bytes, a power of two from 512 to 64 KiB
    uint64_t mft_lcn = 0;          // cluster of the first record of $MFT
    uint64_t mftmirr_lcn = 0;      // the same of $MFTMirr
    uint64_t serial = 0;

    // Whole clusters of the volume. Sectors behind the last whole cluster belong to no file.
    [[nodiscard]] uint64_t clusters() const noexcept {
        TAVELIN_ASSERT(sector_size > 0 && cluster_size >= sector_size);
        return sectors / (cluster_size / sector_size);
    }
};

// The first field that cannot be right, in the order in which the fields depend on each other.
enum class boot_fault {
    none,
    not_ntfs,         // the system's name is not in it
    sector_size,      // no power of two in range
    cluster_size,     // the same
    record_size,      // the same
    index_block_size, // the same
    size,             // no clusters
    mft,              // a table begins outside the volume
};

// All fields lie in the first 512 bytes, whatever the volume's sector size.
constexpr uint64_t boot_sector_bytes = 512;
// Smallest and largest file record in bytes.
constexpr uint64_t record_size_min = 1024;
constexpr uint64_t record_size_max = 4096;
// The largest that Windows formats. The count of sectors per cluster is a negative power of two in
// the boot sector for sizes above 64 KiB.
constexpr uint64_t cluster_size_max = 2u << 20;
constexpr uint64_t index_block_size_max = 64u << 10;

// Whether a sector has what a probe goes by, the name of the file system and the signature. Its
// geometry may still be that of no volume.
[[nodiscard]] bool is_ntfs_boot_sector(std::span<const uint8_t, boot_sector_bytes> bytes) noexcept;
// The serial number, which formatters choose at random. It says nothing of whether the sector is
// one of NTFS.
[[nodiscard]] uint64_t volume_serial(std::span<const uint8_t, boot_sector_bytes> bytes) noexcept;

// Fills `boot` in as far as `fault` allows: all of it for none.
[[nodiscard]] boot_fault parse_boot_sector(std::span<const uint8_t, boot_sector_bytes> bytes,
                                           boot_sector& boot) noexcept;

// "the size of a cluster", for messages.
[[nodiscard]] const char* describe(boot_fault fault) noexcept;

} // namespace ntb
