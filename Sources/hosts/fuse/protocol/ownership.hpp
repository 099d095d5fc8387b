/// Whose everything on a volume is and what they may do, where the volume itself keeps neither.
#pragma once

#include <sys/types.h>

namespace tavelin::fusehost {

/// Plain values for one mount. The kernel is told of them with every item's attributes; whether it
/// goes by them is for the mount option default_permissions to say.
struct Ownership {
    uid_t user = 0;
    gid_t group = 0;
    mode_t fileMask = 0;      ///< permission bits that files do not have
    mode_t directoryMask = 0; ///< and directories
};

} // namespace tavelin::fusehost
