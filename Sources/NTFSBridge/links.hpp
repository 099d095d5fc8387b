// Symbolic links in their two forms on a volume: reparse points as Windows makes them, which are
// only read, and Interix links, which the bridge makes too: a system file whose data is a marker
// of eight bytes followed by the target in UTF-16.
#pragma once

#include "NTFSBridge/guards.hpp"

namespace ntb {

inline constexpr s64 interix_marker_size = 8;
inline constexpr s64 longest_interix_link = 4095; // bytes of data, marker included
inline constexpr int longest_interix_target =
    static_cast<int>((longest_interix_link - interix_marker_size) / sizeof(ntfschar));

// Whether the inode is an Interix link. data is its open unnamed stream, or null to have it opened
// when the rest of the test needs it.
bool is_interix_link(ntfs_inode* inode, ntfs_attr* data = nullptr) noexcept;

// Whether the inode is a link as far as named streams go: any reparse point, or an Interix link.
bool is_link(ntfs_inode* inode) noexcept;

// The target in UTF-8 of a reparse point that is a symbolic link or a junction; else null.
c_string reparse_target(ntfs_inode* inode) noexcept;

// The same for a relative symbolic link whose target exists just as it is written; null for any
// other.
c_string exact_relative_target(ntfs_inode* link) noexcept;

} // namespace ntb
