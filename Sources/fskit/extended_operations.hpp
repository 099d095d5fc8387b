/// Requests that FSKit has no words for, for hosts in the same process.
///
/// They follow the rules of the requests in fskit/api/volume.hpp.
#pragma once

#include "core/values.hpp"
#include "fskit/api/volume.hpp"

#include <cstddef>
#include <cstdint>
#include <functional>

namespace tavelin {

/// Whose an item is and what it permits where the volume does not keep it.
struct DefaultOwner {
    std::uint32_t user = 0;
    std::uint32_t group = 0;
    std::uint32_t fileMask = 0;      ///< permission bits that files do not have
    std::uint32_t directoryMask = 0; ///< and directories
};

/// Implemented by TavelinVolume. Hosts reach it through the volume that they have loaded; any
/// thread may call it.
class ExtendedOperations {
  public:
    virtual ~ExtendedOperations() = default;

    // ---- Hand-outs -----------------------------------------------------------------------------
    // Activate, lookup and create hand out an item once more each time they answer it. FSKit gives
    // all of that back with one reclaim. A host that keeps one reference for each answer uses these
    // instead, and no lookup can meet a reclaim half way.

    /// One more hand-out of an item that the caller was handed. Takes no lock.
    virtual void retain(const fskit::FSItemRef& item) noexcept = 0;
    /// Gives one hand-out back; the last one reclaims the item.
    virtual void release(const fskit::FSItemRef& item) noexcept = 0;
    /// Reclaims everything that is handed out but the root, before the volume is deactivated. Items
    /// may still be released, without effect.
    virtual void reclaimAll() = 0;
    /// Items handed out and not reclaimed, the root among them.
    virtual std::size_t liveItems() const = 0;

    // ---- Items ---------------------------------------------------------------------------------

    /// The item of an entry of a directory's listing, with its attributes.
    virtual Outcome<fskit::FSLookupItemResult>
    attributesOfEntry(fskit::FSItemID entry, const fskit::FSItemRef& directory) = 0;
    /// The item of a reference (see itemReference) that this or an earlier mount has told of: for
    /// hosts that hand out handles which outlive their items. kESTALE when it has been removed.
    virtual Outcome<fskit::FSLookupItemResult> itemAt(std::uint64_t reference) = 0;
    /// The directory that an item has a name in; of the root itself.
    virtual Outcome<fskit::FSLookupItemResult> directoryOf(const fskit::FSItemRef& item) = 0;
    /// Packs the next entries of a directory behind a place, with their attributes, by the volume's
    /// collation order; none at the end. The packer takes some hundred. The place is then behind
    /// the last one, so no names that stay are skipped or repeated.
    virtual Outcome<void> listSorted(const fskit::FSItemRef& directory, NTFSListPosition& position,
                                     fskit::FSDirectoryEntryPacker& packer) = 0;
    /// The 8.3 alias that goes with a name; empty when there is none.
    virtual Outcome<std::string> shortName(const fskit::FSFileName& name,
                                           const fskit::FSItemRef& directory) = 0;
    /// Gives a file a name of the host's own, beside those that users see: FSKit's hard links are
    /// refused, but a host keeps a file alive by this when its last name is taken by another.
    virtual Outcome<fskit::FSCreateLinkResult> linkInternal(const fskit::FSItemRef& item,
                                                            const fskit::FSFileName& name,
                                                            const fskit::FSItemRef& directory) = 0;
    /// Has two names lead to each other's items, which the caller was handed.
    virtual Outcome<void> exchange(const fskit::FSItemRef& item, const fskit::FSItemRef& directory,
                                   const fskit::FSFileName& name, const fskit::FSItemRef& otherItem,
                                   const fskit::FSItemRef& otherDirectory,
                                   const fskit::FSFileName& otherName) = 0;
    /// How many names a file has to lose. Its link count may be one more: an 8.3 alias counts, and
    /// goes with the name it belongs to.
    virtual Outcome<std::size_t> countNames(const fskit::FSItemRef& item) = 0;
    /// The size in bytes of an extended attribute, which is not read for it.
    virtual Outcome<std::size_t> xattrSize(const fskit::FSFileName& name,
                                           const fskit::FSItemRef& item) = 0;
    /// Gives clusters to a range of a file, or takes them. kENOTSUP where it is compressed.
    virtual Outcome<void> allocate(const fskit::FSItemRef& item, std::uint64_t offset,
                                   std::uint64_t length, NTFSAllocation how) = 0;
    /// The first byte from `offset` on that is in a hole, or in data. The end of the file counts as
    /// a hole; kENXIO when there is nothing of the kind up to there.
    virtual Outcome<std::uint64_t> seek(const fskit::FSItemRef& item, std::uint64_t offset,
                                        bool forHole) = 0;

    // ---- The volume ----------------------------------------------------------------------------

    /// From now on owners and modes are kept with items, in the way of WSL, and are set when they
    /// are made or changed; special files can be made, devices with the number in the request's
    /// native attributes. What an item lacks of it is as `others` says. Before any other request.
    virtual Outcome<void> keepOwners(const DefaultOwner& others) = 0;
    /// Takes all memory of the page cache from the system at once, some 32 MiB: for a host that
    /// keeps the volume mounted and wants first requests to be as fast as later ones.
    virtual Outcome<void> prefaultCache() = 0;
    /// The serial number in the boot sector, by which hosts know a volume again.
    virtual std::uint64_t serialNumber() const = 0;
    /// The volume's label as it is stored: empty when it has none, unlike the volume's name.
    virtual Outcome<std::string> label() = 0;
    /// File records in use, those of the volume's own files among them. FSKit's statistics count
    /// the room for records instead.
    virtual Outcome<std::uint64_t> filesInUse() = 0;
    /// Tells the device what is free, see NTFSVolume::trim(). `goesOn` is asked now and then.
    virtual Outcome<std::uint64_t> trim(const NTFSTrimRange& range,
                                        const std::function<bool()>& goesOn) = 0;
    /// What the page cache and the device were used for since the load.
    virtual Outcome<NTFSIOStats> ioStatistics() = 0;
};

} // namespace tavelin
