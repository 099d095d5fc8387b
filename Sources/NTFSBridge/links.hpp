// Symbolic links in their forms on a volume: reparse points as Windows and WSL make them, and
// Interix links: a system file whose data is a marker of eight bytes followed by the target in
// UTF-16.
#pragma once

#include "NTFSBridge/reparse.hpp"

namespace ntb {

inline constexpr s64 interix_marker_size = 8;
inline constexpr s64 interix_link_bytes_max = 4095; // bytes of data, marker included
inline constexpr int interix_target_units_max =
    static_cast<int>((interix_link_bytes_max - interix_marker_size) / sizeof(ntfschar));

// Whether the inode is an Interix link. data is its open unnamed stream, or null to have it opened
// when the rest of the test needs it.
bool is_interix_link(ntfs_inode* inode, ntfs_attr* data = nullptr) noexcept;

// Whether a reparse point is a link: a symbolic link or a junction of Windows, or a link of WSL,
// with a target.
bool is_reparse_link(const reparse_point& point) noexcept;

// Whether the inode is a link of either kind.
// An unreadable reparse point counts as no link, so the item is then shown as a plain file.
bool is_link(ntfs_inode* inode) noexcept;

// How the target of a link into this volume is told.
enum class target_form {
    of_volume, // from the volume's root: "/real"
    in_mount,  // from the link's directory: "../real", which holds wherever the volume is mounted
};

// The target in UTF-8 of an inode that has this reparse point, or is an Interix link; null when it
// is no link.
c_string link_target(ntfs_inode* inode, const reparse_point& point, target_form form) noexcept;

} // namespace ntb
