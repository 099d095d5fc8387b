// The primitives of every change of names.
#pragma once

#include "NTFSBridge/volume.hpp"

namespace ntb {

// Gives an inode one more name. EINVAL for the directory itself as its own entry, EEXIST, or what
// uname_of answers.
[[nodiscard]] int32_t link_name(ntb_vol* vol, uint64_t ino, uint64_t directory,
                                const char* name) noexcept;

// Makes an item with its owner. Within an operation. Answers what ntb_create answers.
[[nodiscard]] int32_t create_entry(ntb_vol* vol, uint64_t parent, const char* name,
                                   const ntb_new_item& item, uint64_t* ino) noexcept;

// Removes a name, and the inode with its last one. With check_empty a directory must be empty
// (ENOTEMPTY); without, the caller promises that the inode keeps another name.
[[nodiscard]] int32_t unlink_impl(ntb_vol* vol, uint64_t parent, const char* name,
                                  bool check_empty) noexcept;

} // namespace ntb
