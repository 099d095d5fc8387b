// What the boot sector says of a volume, and whether a file record is whole: the little of NTFS
// that is read without the library, which wants a sound volume first.
#pragma once

#include "NTFSBridge/ntb.h"

namespace ntb {

struct disk_layout {
    uint64_t cluster = 0;        // bytes, a power of two up to 2 MiB
    uint64_t record_size = 0;    // bytes of a file record, a power of two from 1024 to 4096
    uint64_t mft_offset = 0;     // byte offset of the first record of $MFT
    uint64_t mftmirr_offset = 0; // byte offset of the first record of $MFTMirr
};

// The first records, which every volume keeps in $MFTMirr too: these, or as many as fill a cluster.
constexpr uint64_t mirrored_records_min = 4;
constexpr uint64_t protected_sector = 512; // bytes that a word of the update sequence protects

// 0, the device's error, or EINVAL for a boot sector that no volume of this size has. Both tables
// begin on the device.
[[nodiscard]] int32_t read_layout(const ntb_io& io, disk_layout& layout) noexcept;

// Whether a record has its magic, its number, and a sequence number that all its sectors end with.
// `size` is the layout's.
[[nodiscard]] bool fixups_match(const uint8_t* record, uint64_t size, uint64_t number) noexcept;

// A number of up to 8 bytes, in little endian.
[[nodiscard]] uint64_t number_at(const uint8_t* bytes, uint64_t offset, unsigned size) noexcept;

// Byte offset, in a file record, of its update sequence (u16).
constexpr uint64_t usa_offset = 0x04;

} // namespace ntb
