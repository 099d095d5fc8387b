/// How items look to the host: their identifiers, types and permissions. Pure; any thread.
#pragma once

#include "core/ntfs_volume.hpp"
#include "core/values.hpp"

#include <cstdint>

namespace tavelin::Driver2 {

/// The host's identifier of an item: its inode number, except that the root directory is 2. Inode
/// 2 is a system file that is never an item, so the two mappings are inverse.
inline constexpr std::uint64_t kRootItemID = 2;
[[nodiscard]] constexpr std::uint64_t itemID(std::uint64_t ino) noexcept {
    return ino == NTFSVolume::kRootIno ? kRootItemID : ino;
}
[[nodiscard]] constexpr std::uint64_t ino(std::uint64_t itemID) noexcept {
    return itemID == kRootItemID ? NTFSVolume::kRootIno : itemID;
}

/// Type and permission bits of an item. NTFS has no POSIX permissions: everybody may do everything.
[[nodiscard]] std::uint32_t mode(NTFSItemType type) noexcept;

} // namespace tavelin::Driver2
