// The two primitives of every change of names: adding one and removing one.
#pragma once

#include "NTFSBridge/volume.hpp"

namespace ntb {

// Gives an inode one more name. EINVAL for the directory itself as its own entry, EEXIST, or what
// uname_of answers.
[[nodiscard]] int32_t link_name(ntb_vol* vol, uint64_t ino, uint64_t directory,
                                const char* name) noexcept;

// Removes a name, and the inode with its last one. With check_empty a directory must be empty
// (ENOTEMPTY); without, the caller promises that the inode keeps another name.
[[nodiscard]] int32_t unlink_impl(ntb_vol* vol, uint64_t parent, const char* name,
                                  bool check_empty) noexcept;

} // namespace ntb
