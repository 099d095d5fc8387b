// How many closed inodes the library keeps at hand.
#pragma once

#include "NTFSBridge/library.hpp"

namespace ntb {

// Inodes that are kept: about 1.5 MiB with records of 1024 bytes.
inline constexpr int cached_inodes_max = 1024;

// Gives a volume whose caches have just been made a larger inode cache. The library's own has 64
// entries, fewer than the files of many a directory, and an inode that is not in it is read and
// decoded anew by each call. Without the memory the library's own stays.
void enlarge_inode_cache(ntfs_volume* volume) noexcept;

} // namespace ntb
