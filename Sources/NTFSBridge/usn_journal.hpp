// The change journal of Windows, $Extend\$UsnJrnl, in which its backup and search programs look up
// what has changed since they looked last. Changes made here are not recorded in it, so it has to
// tell these programs that it is of no use for what went before.
#pragma once

#include "NTFSBridge/volume.hpp"

namespace ntb {

// Looks for the volume's change journal, unless it is known whether there is one. An error is
// answered once: where the search fails again, the volume counts as one without. 0, errno or EIO.
// No inode of the volume is open.
[[nodiscard]] int32_t find_usn_journal(ntb_vol* vol) noexcept;

// Gives the journal that was found a new identity, from which nothing before the present moment can
// be asked for. 0, errno or EIO. No inode of the volume is open.
[[nodiscard]] int32_t stamp_usn_journal(const ntb_vol* vol) noexcept;

} // namespace ntb
