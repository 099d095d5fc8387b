// Reparse points: what a record says of itself when its file is more, or something else, than its
// streams. Tags and layouts are those of Microsoft's [MS-FSCC] 2.1.2.
#pragma once

#include "NTFSBridge/guards.hpp"
#include "NTFSBridge/ntb.h"

#include <span>

namespace ntb {

// The value of a $REPARSE_POINT attribute.
class reparse_point {
  public:
    // Leaves the tag 0 when the inode has no such attribute, whatever its flags say. A damaged one
    // is EIO, with the tag if that can be read.
    [[nodiscard]] int32_t read(ntfs_inode* inode) noexcept;

    // False before read(), and for an inode without the attribute. True for a damaged one.
    [[nodiscard]] bool exists() const noexcept { return exists_; }
    [[nodiscard]] uint32_t tag() const noexcept { return tag_; }
    // What follows the header.
    [[nodiscard]] std::span<const uint8_t> data() const noexcept { return data_; }

  private:
    std::unique_ptr<uint8_t[]> bytes_;
    std::span<const uint8_t> data_;
    uint32_t tag_ = 0;
    bool exists_ = false;
};

// Where the bytes of a file's unnamed stream are: an NTB_DATA_ value. The inode is that of a file.
[[nodiscard]] uint32_t data_state_of(ntfs_inode* inode, const reparse_point& point) noexcept;

// What an item is, an NTB_TYPE_ value; a device's number goes to *device. Agrees with ntb_getattr.
[[nodiscard]] uint32_t type_of(ntfs_inode* inode, const reparse_point& point,
                               uint64_t* device) noexcept;

} // namespace ntb
