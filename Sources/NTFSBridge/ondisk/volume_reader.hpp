// Reads the boot sector and file records from a device, for a volume that the library has not
// mounted and might refuse.
#pragma once

#include "NTFSBridge/ntb.h"
#include "NTFSBridge/ondisk/boot_sector.hpp"

#include <span>

namespace ntb {

// The first records, which every volume keeps in $MFTMirr too: these, or as many as fill a cluster.
constexpr uint64_t mirrored_records_min = 4;

// 0, the device's error, or EINVAL for a boot sector that no volume on this device has. $MFT and
// $MFTMirr then begin on the device.
[[nodiscard]] int32_t read_boot_sector(const ntb_io& io, boot_sector& boot) noexcept;

// How many records $MFTMirr holds.
[[nodiscard]] uint64_t mirrored_records(const boot_sector& boot) noexcept;

// Whether `record`, as it is on the disk, was written as a whole and is the record of that number.
// At most record_size_max bytes.
[[nodiscard]] bool fixups_match(std::span<const uint8_t> record, uint64_t number) noexcept;

// Reads a record whose number is below mirrored_records and applies its fixups. Takes the copy in
// $MFTMirr where the record in $MFT cannot be read or was written in part. 0, the device's error,
// or EINVAL when neither is whole. `record` has the size of the boot sector's records.
[[nodiscard]] int32_t read_mirrored_record(const ntb_io& io, const boot_sector& boot,
                                           uint64_t number, std::span<uint8_t> record) noexcept;

} // namespace ntb
