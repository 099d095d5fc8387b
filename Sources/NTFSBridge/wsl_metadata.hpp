// Owner, mode and device number as the Windows Subsystem for Linux keeps them, and the kernel's
// drivers after it: in extended attributes of NTFS ($EA, $EA_INFORMATION), beside the security
// descriptor, which they do not touch.
//
// A file has one $EA with a list of entries (FILE_FULL_EA_INFORMATION of Microsoft's [MS-FSCC]
// 2.4.16). On the volume each entry, the last one too, begins with the distance to where the next
// one begins:
//
//   u32 distance  a multiple of 4
//   u8  flags     0x80: nobody may change the file who does not know this entry
//   u8  length of the name, without its NUL
//   u16 length of the value
//   name in upper case, NUL, value, padding
//
// WSL's entries, all little endian (Microsoft's "File Permissions for WSL"):
//
//   $LXUID, $LXGID  u32
//   $LXMOD          u32, st_mode of Linux with the file type
//   $LXDEV          u32 major number, u32 minor number
#pragma once

#include "NTFSBridge/volume.hpp"

namespace ntb {

struct wsl_metadata {
    ntb_owner owner = {};
    uint64_t device = 0; // major number << 32 | minor number; 0 when there is none
};

// What an inode has of it. A damaged list ends where it stops making sense, and an entry of another
// length than WSL's counts as absent: ntb_getattr must not fail for them.
[[nodiscard]] wsl_metadata read_wsl_metadata(ntfs_inode* inode) noexcept;

// Stores the given fields of an owner, the file's mode with its type (of an NTB_TYPE_ value), and
// keeps every other entry. EIO for a damaged list; E2BIG when the entries of others leave no room;
// ENOSPC where the list would grow on a full volume; else the library's errno. The inode stays open
// and is to be closed to have it written.
[[nodiscard]] int32_t write_owner(const ntb_vol* vol, ntfs_inode* inode, const ntb_owner& owner,
                                  uint32_t type) noexcept;

} // namespace ntb
