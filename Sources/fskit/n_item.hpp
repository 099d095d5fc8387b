/// The item of one file, directory or link of a TavelinVolume.
#pragma once

#include "core/driver2/directory_snapshot.hpp"
#include "fskit/api/item.hpp"

#include <atomic>
#include <cstdint>
#include <memory>

namespace tavelin {

/// Made by TavelinVolume only, at most one live at a time for each inode number. Any thread may
/// hold it; the host keeps it from the reply that handed it out until it reclaims it.
class NItem final : public fskit::FSItem {
  public:
    NItem(std::uint64_t inode, std::uint64_t parentInode) noexcept
        : ino(inode), parent(parentInode) {}

    const std::uint64_t ino; ///< NTFS file record number
    /// Inode number of the directory through which the item was last reached.
    std::atomic<std::uint64_t> parent;

  private:
    friend class TavelinVolume;

    /// A directory's listing while it is read in pages; guarded by the volume's item lock.
    std::shared_ptr<const Driver2::DirectorySnapshot> snapshot;
};

} // namespace tavelin
