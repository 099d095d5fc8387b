/// The item of one file, directory or link of a TavelinVolume.
#pragma once

#include "core/values.hpp"
#include "fskit/api/item.hpp"

#include <atomic>
#include <cstdint>

namespace tavelin {

/// Made by TavelinVolume only, at most one live at a time for each file. Any thread may hold it;
/// the host keeps it from the answer that handed it out until it reclaims it.
///
/// An item is a file record *and* the record's sequence number, which NTFS raises whenever the
/// record is used for another file. So an item whose file is gone never stands for the next file in
/// its record: requests about it answer ESTALE.
class NItem final : public fskit::FSItem {
  public:
    NItem(std::uint64_t fileReference, std::uint64_t parentInode) noexcept
        : reference(fileReference), ino(recordNumber(fileReference)), parent(parentInode) {}

    /// The NTFS file reference: the record number below, the sequence number in the upper 16 bits.
    const std::uint64_t reference;
    const std::uint64_t ino; ///< NTFS file record number
    /// Record number of the directory through which the item was last reached.
    /// Changed by lookups and renames on any thread; the last one counts.
    std::atomic<std::uint64_t> parent;

  private:
    friend class TavelinVolume;

    static constexpr std::uint64_t kNothingReserved = UINT64_MAX;

    /// How much of the file's space stays at its last close, in bytes from its beginning, whatever
    /// its size; what is behind was reserved for as long as it is open.
    std::atomic<std::uint64_t> reservedFrom{kNothingReserved};
    /// How often the item was handed out and not given back, see TavelinVolume::release(). Raised
    /// from 0 and lowered to 0 under the volume's item lock only.
    std::atomic<std::uint32_t> handedOut{0};
    /// Whether the file's content, attributes or name were changed since its last close.
    std::atomic<bool> isUnflushed{false};
};

} // namespace tavelin
