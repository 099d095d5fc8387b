// The change journal of Windows, $Extend\$UsnJrnl, in which its backup and search programs look up
// what has changed since they looked last. Changes made here are not recorded in it, so it has to
// tell these programs that it is of no use for what went before.
#pragma once

#include "NTFSBridge/volume.hpp"

namespace ntb {

// Gives the volume's change journal a new identity, from which nothing before the present moment
// can be asked for. Nothing on a volume without one. 0, errno or EIO. No inode of the volume is
// open.
[[nodiscard]] int32_t stamp_usn_journal(const ntb_vol* vol) noexcept;

} // namespace ntb
