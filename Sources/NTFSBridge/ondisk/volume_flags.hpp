// The flags of the volume in $VOLUME_INFORMATION, of record 3 ($Volume) and its copy in $MFTMirr,
// by which NTFS drivers tell each other about a volume's state.
#pragma once

#include "NTFSBridge/ntb.h"

#include <span>

namespace ntb {

// The volume is being written to, or was when its driver was cut off. Windows then checks it at its
// next start.
constexpr uint16_t volume_is_dirty = 0x0001;
// Windows has to give $LogFile another size at its next mount.
constexpr uint16_t volume_resize_log_file = 0x0002;
// Windows has to convert the volume from an older version of the format.
constexpr uint16_t volume_upgrade_on_mount = 0x0004;
// A chkdsk is under way, or was cut off.
constexpr uint16_t volume_chkdsk_underway = 0x4000;
constexpr uint16_t volume_modified_by_chkdsk = 0x8000;
// With any of these set, only Windows may write.
constexpr uint16_t volume_read_only_flags = 0xc027 & ~volume_is_dirty;
static_assert((volume_read_only_flags & volume_resize_log_file) != 0 &&
              (volume_read_only_flags & volume_chkdsk_underway) != 0 &&
              (volume_read_only_flags & volume_modified_by_chkdsk) != 0);

// The flags in a record as it is on the disk, fixups in place. EINVAL when it is not whole or has
// none.
[[nodiscard]] int32_t read_volume_flags(std::span<const uint8_t> record, uint16_t& flags) noexcept;

} // namespace ntb
