/// The volume that a host holds for one loaded NTFS volume: its requests, and the registry that
/// gives each file one item.
///
/// Made by TavelinFileSystem's load around an open NTFSVolume; the host activates it, mounts it,
/// sends requests, synchronises, unmounts, reclaims the items and deactivates it, and then unloads.
///
/// Threads. Requests may come from any thread at any time. `items` guards the registry and the
/// listings that are being read. It is never held across a call into the NTFSVolume, whose
/// own lock serialises the volume, and nothing that it is held for takes another lock. A host's own
/// locks may be held around requests and so come before both.
///
/// Errors are POSIX errors with macOS numbers. A request that takes an item answers kENOENT when it
/// is given none and kESTALE when the item's file is gone. A name that is empty or not UTF-8 is
/// kEINVAL. An item that is not this module's own and a negative offset stop the process.
#pragma once

#include "core/journal/journaled_device.hpp"
#include "core/ntfs_volume.hpp"
#include "fskit/api/volume.hpp"
#include "fskit/extended_operations.hpp"
#include "fskit/kept_listings.hpp"
#include "fskit/n_item.hpp"
#include "fskit/orphan_view.hpp"
#include "fskit/resource_device.hpp"
#include "platform/lock_order.hpp"
#include "platform/mutex.hpp"

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace tavelin {

class TavelinVolume final : public fskit::FSVolume,
                            public fskit::FSVolumeOperations,
                            public fskit::FSVolumeReadWriteOperations,
                            public fskit::FSVolumeSpaceOperations,
                            public fskit::FSVolumeOpenCloseOperations,
                            public fskit::FSVolumeItemDeactivation,
                            public fskit::FSVolumeRenameOperations,
                            public fskit::FSVolumeXattrOperations,
                            public ExtendedOperations {
  public:
    /// Named after the volume's label, "NTFS" when that is empty or cannot be read; identified by
    /// the serial number.
    explicit TavelinVolume(std::shared_ptr<NTFSVolume> volume);

    /// The volume that all requests go to. It serialises them by a lock of its own.
    const std::shared_ptr<NTFSVolume> ntfs;

    using FSVolume::name;

    /// The device at the bottom of `ntfs`, which owns it; set by load, before any request.
    std::weak_ptr<ResourceDevice> device;
    /// The journal between the two, ended by close(); set by load as well, null without one.
    std::shared_ptr<JournaledDevice> journal;

    /// Whether a name that is not there as given is looked for in the other normal forms of
    /// Unicode, and new names are made composed, as Windows makes them. Programs of macOS hand
    /// names over decomposed. Off at first; set by the load and the activation.
    void setNormalizesNames(bool on) noexcept { normalizesNames_ = on; }

    /// Whether a name that is not there as given is looked for in any case, as Windows does, by the
    /// volume's own table. Stored names are shown, and an item keeps its case when it is replaced.
    /// Off at first; set by the load and the activation.
    void setIgnoresCase(bool on) noexcept { ignoresCase_ = on; }
    [[nodiscard]] bool ignoresCase() const noexcept { return ignoresCase_; }

    /// Writes everything back, unmounts, and ends the journal: the device is then as any other
    /// system expects it. Requests answer kENXIO from then on, and further calls do nothing. Throws
    /// the first failure, with the volume closed all the same.
    void close() TAVELIN_EXCLUDES(items);
    /// Whether programs may use the volume, from its activation to its deactivation or its end.
    [[nodiscard]] bool isActive() const { return isActivated_ && ntfs->isMounted(); }
    /// Whether changes are refused: by the load, or by a mount that asked for it at activation.
    [[nodiscard]] bool readOnly() const noexcept { return ntfs->readOnly() || refusesChanges_; }

    // ---- Items ---------------------------------------------------------------------------------

    /// The one item of a file, found or made, from now on reached through `parent`. It stays
    /// registered until it is reclaimed, and is not counted as handed out.
    [[nodiscard]] std::shared_ptr<NItem> item(std::uint64_t reference, std::uint64_t parent)
        TAVELIN_EXCLUDES(items);
    /// The item registered for the file of an answered one: the same, or where a reclaim has taken
    /// that out a new one of the same parent. Not counted as handed out.
    [[nodiscard]] std::shared_ptr<NItem> registered(const fskit::FSItemRef& answered)
        TAVELIN_EXCLUDES(items);
    /// The root directory's item, its own parent; it stays registered for the volume's life.
    [[nodiscard]] std::shared_ptr<NItem> root() TAVELIN_EXCLUDES(items);
    /// How many listings are kept for readers.
    [[nodiscard]] std::size_t keptListings() const TAVELIN_EXCLUDES(items);

    /// Applies what is valid in the request, in a fixed order (size, times, flags, then what is not
    /// consumed yet of mode, owner and group, which are ignored where they are not kept), and marks
    /// each as consumed once it is. Throws the first failure; what was applied before it stays.
    void apply(fskit::FSItemSetAttributesRequest& request, const NItem& item);

    // ---- The volume ----------------------------------------------------------------------------

    /// Names that a file may have: the limit of NTFS.
    [[nodiscard]] std::int64_t maximumLinkCount() const override { return 1024; }
    /// In UTF-16 units, as NTFS counts; names of more bytes than that are possible.
    [[nodiscard]] std::int64_t maximumNameLength() const override { return 255; }
    /// Owners are accepted and ignored, so there is nothing to restrict.
    [[nodiscard]] bool restrictsOwnershipChanges() const override { return false; }
    /// A name that is too long is refused with kENAMETOOLONG.
    [[nodiscard]] bool truncatesLongNames() const override { return false; }
    /// Bytes. Longer streams that another system made cannot be read as an attribute.
    [[nodiscard]] std::int64_t maximumXattrSize() const override {
        return NTFSVolume::kXattrBytesMax;
    }
    /// 16 TiB, the limit of NTFS with clusters of 4096 bytes.
    [[nodiscard]] std::uint64_t maximumFileSize() const override { return 0x100000000000; }
    /// What FSKit tells programs of the volume; the same for every NTFS volume.
    [[nodiscard]] fskit::FSVolumeSupportedCapabilities supportedVolumeCapabilities() const override;
    /// Only the type name when the volume cannot answer.
    [[nodiscard]] fskit::FSStatFSResult volumeStatistics() override;
    /// Asks the host for a read-only mount where changes would be refused anyhow, so that programs
    /// are told so by statfs and not by the first error.
    [[nodiscard]] fskit::FSMountOptions requestedMountOptions() const override {
        return readOnly() ? fskit::FSMountOptionsReadOnly : 0;
    }

    /// Takes options, unless it is active already: those about names change what the load has set,
    /// "ro" and "rdonly" refuse changes for good. kENXIO once the volume is closed.
    Outcome<fskit::FSItemRef> activate(const fskit::FSTaskOptions& options) override;
    /// Nothing is left to do once the volume is active; the options were taken at activation.
    Outcome<void> mount(const fskit::FSTaskOptions& options) override;
    /// Flushes. The volume stays open, for the deactivation that follows.
    void unmount() override;
    /// Flushes unless the flags say not to wait.
    Outcome<void> synchronize(fskit::FSSyncFlags flags) override;
    /// Writes everything back and closes the volume, as nothing may follow: an unload does not
    /// always come. When writing fails the volume stays open, for the unload to try again.
    Outcome<void> deactivate(fskit::FSDeactivateOptions options) override;
    /// Sets the label and answers the name as it is from now on. kENAMETOOLONG over 128 UTF-16
    /// units.
    Outcome<fskit::FSFileName> setVolumeName(const fskit::FSFileName& name) override;

    // ---- Item requests -------------------------------------------------------------------------

    /// The root stays registered.
    void reclaimItem(const fskit::FSItemRef& item) override;
    /// Whether FSKit may leave out open and close requests; see volume.hpp of the API.
    [[nodiscard]] bool isOpenCloseInhibited() const override { return openCloseInhibited_; }
    void setOpenCloseInhibited(bool inhibited) override { openCloseInhibited_ = inhibited; }
    /// Nothing has to be opened: the bridge keeps no inode open between requests.
    Outcome<void> openItem(const fskit::FSItemRef& item, fskit::FSVolumeOpenModes modes) override;
    /// The last close gives back what was reserved for the file and not used, and flushes an item
    /// that was changed, which is a flush of everything. A failure is left to the next synchronise.
    void closeItem(const fskit::FSItemRef& item, fskit::FSVolumeOpenModes modes) override;
    /// For removed items and those that space was reserved for: little else is left to do when
    /// nobody uses an item any more, and the kernel waits for the answer.
    [[nodiscard]] fskit::FSItemDeactivationOptions itemDeactivationPolicy() const override {
        return fskit::FSItemDeactivationForRemovedItems |
               fskit::FSItemDeactivationForPreallocatedItems;
    }
    /// Gives back the space, as the last close does.
    void deactivateItem(const fskit::FSItemRef& item) override;

    /// Fills every attribute that the volume knows, whatever is desired.
    Outcome<fskit::FSItemAttributes> getAttributes(const fskit::FSItemGetAttributesRequest& desired,
                                                   const fskit::FSItemRef& item) override;
    /// The same for the answer to another request, which is the one that is counted.
    Outcome<fskit::FSItemAttributes> attributesBeside(const fskit::FSItemRef& item);
    /// What is known of an item without reading it: its numbers, its type from the caller, and the
    /// present for its times; nothing of its size.
    [[nodiscard]] fskit::FSItemAttributes presumed(const fskit::FSItemRef& item,
                                                   fskit::FSItemType type) const;
    /// kEINVAL for attributes that only the volume sets, kENOTSUP for flags that forbid changes;
    /// nothing is applied then. The size of what is no file is ignored.
    Outcome<fskit::FSItemAttributes> setAttributes(fskit::FSItemSetAttributesRequest& changes,
                                                   const fskit::FSItemRef& item) override;
    /// kENOENT for a name that is not there. Answers the stored name. Case matters; of it and of
    /// normal forms see setIgnoresCase() and setNormalizesNames(), which hold for all requests
    /// about names.
    Outcome<fskit::FSLookupItemResult> lookupItem(const fskit::FSFileName& name,
                                                  const fskit::FSItemRef& directory) override;
    /// The target in the form that a mount can follow. kEINVAL for an item that is no link.
    Outcome<fskit::FSFileName> readSymbolicLink(const fskit::FSItemRef& item) override;
    /// No name that stays is skipped or repeated, whatever changes between two pages: a reader is
    /// served from the listing it began with, which is kept until it has reached the end. Entries
    /// with attributes leave out what was removed since. With a listing that is gone the reader
    /// goes on at the same position of a fresh one; a stale verifier is never an error.
    Outcome<fskit::FSDirectoryVerifier>
    enumerateDirectory(const fskit::FSItemRef& directory, fskit::FSDirectoryCookie startingAt,
                       fskit::FSDirectoryVerifier verifier,
                       const fskit::FSItemGetAttributesRequest* attributes,
                       fskit::FSDirectoryEntryPacker& packer) override;
    /// The same for a host that keeps files without a name: an entry of such a file is that of
    /// whatever has the name now, and is left out when nothing has. `orphans` may be null.
    Outcome<fskit::FSDirectoryVerifier>
    enumerate(const fskit::FSItemRef& directory, fskit::FSDirectoryCookie startingAt,
              fskit::FSDirectoryVerifier verifier,
              const fskit::FSItemGetAttributesRequest* attributes,
              fskit::FSDirectoryEntryPacker& packer, OrphanView* orphans);
    /// Fills the buffer straight from the volume. Fewer bytes than asked for at the end of the
    /// file, none behind it.
    Outcome<std::size_t> read(const fskit::FSItemRef& item, std::int64_t offset, std::size_t length,
                              fskit::FSMutableFileDataBuffer& buffer) override;
    /// On a volume that is nearly full, as much as there is room for.
    Outcome<fskit::FSWriteFileResult>
    write(std::span<const std::byte> contents, const fskit::FSItemRef& item, std::int64_t offset,
          const fskit::FSItemGetAttributesRequest* attributes) override;

    /// kENOTSUP for space in one piece, which the volume cannot promise, and for compressed files.
    /// Without the flag to persist, what is reserved goes with the last close, or when the file is
    /// truncated, be it to the size that it has.
    Outcome<fskit::FSPreallocateResult> preallocateSpace(const fskit::FSItemRef& item,
                                                         std::int64_t offset, std::size_t length,
                                                         fskit::FSPreallocateFlags flags) override;
    Outcome<std::uint64_t> seekRegion(const fskit::FSItemRef& item, std::int64_t offset,
                                      fskit::FSSeekRegion region) override;

    /// Files and directories, and special files where owners are kept (else kENOTSUP). Attributes
    /// that cannot be applied do not undo it.
    Outcome<fskit::FSCreateItemResult>
    createItem(const fskit::FSFileName& name, fskit::FSItemType type,
               const fskit::FSItemRef& directory,
               fskit::FSItemSetAttributesRequest& attributes) override;
    /// Of the attributes an owner is kept, where owners are; the others are ignored.
    Outcome<fskit::FSCreateItemResult>
    createSymbolicLink(const fskit::FSFileName& name, const fskit::FSItemRef& directory,
                       fskit::FSItemSetAttributesRequest& attributes,
                       const fskit::FSFileName& linkContents) override;
    /// Always kENOTSUP: hard links are never made.
    Outcome<fskit::FSCreateLinkResult> createLink(const fskit::FSItemRef& item,
                                                  const fskit::FSFileName& name,
                                                  const fskit::FSItemRef& directory) override;
    /// Removes by name; `item` is not looked at. kENOTEMPTY for a directory with entries. The item
    /// stays usable in the host's hands but answers kESTALE once its record is gone.
    Outcome<fskit::FSRemoveItemResult> removeItem(const fskit::FSItemRef& item,
                                                  const fskit::FSFileName& name,
                                                  const fskit::FSItemRef& directory) override;
    /// Replaces what has the new name, when both are directories or neither is. The items of both
    /// stay registered; what is at `sourceName` is moved, whatever `item` is.
    Outcome<fskit::FSRenameItemResult> renameItem(const fskit::FSItemRef& item,
                                                  const fskit::FSItemRef& sourceDirectory,
                                                  const fskit::FSFileName& sourceName,
                                                  const fskit::FSFileName& destinationName,
                                                  const fskit::FSItemRef& destinationDirectory,
                                                  const fskit::FSItemRef& overItem) override;

    /// Extended attributes are named streams; kENOATTR for one that does not exist.
    Outcome<std::vector<std::byte>> getXattr(const fskit::FSFileName& name,
                                             const fskit::FSItemRef& item) override;
    /// An absent value is an empty one. The policy `remove` removes the attribute; kENOATTR where
    /// there is none.
    Outcome<void> setXattr(const fskit::FSFileName& name,
                           const std::optional<std::span<const std::byte>>& value,
                           const fskit::FSItemRef& item, fskit::FSSetXattrPolicy policy) override;
    /// The names of the streams that are shown as attributes. Links have none.
    Outcome<std::vector<fskit::FSFileName>> listXattrs(const fskit::FSItemRef& item) override;

    // ---- Requests beside FSKit's ---------------------------------------------------------------

    void retain(const fskit::FSItemRef& item) noexcept override;
    void release(const fskit::FSItemRef& item) noexcept override TAVELIN_EXCLUDES(items);
    void reclaimAll() override TAVELIN_EXCLUDES(items);
    [[nodiscard]] std::size_t liveItems() const override TAVELIN_EXCLUDES(items);
    Outcome<fskit::FSLookupItemResult>
    attributesOfEntry(fskit::FSItemID entry, const fskit::FSItemRef& directory) override;
    Outcome<fskit::FSLookupItemResult> itemAt(std::uint64_t reference) override;
    Outcome<fskit::FSLookupItemResult> directoryOf(const fskit::FSItemRef& item) override;
    Outcome<fskit::FSCreateLinkResult> linkInternal(const fskit::FSItemRef&,
                                                    const fskit::FSFileName&,
                                                    const fskit::FSItemRef&) override;
    Outcome<void> exchange(const fskit::FSItemRef& item, const fskit::FSItemRef& directory,
                           const fskit::FSFileName& name, const fskit::FSItemRef& otherItem,
                           const fskit::FSItemRef& otherDirectory,
                           const fskit::FSFileName& otherName) override TAVELIN_EXCLUDES(items);
    Outcome<void> listSorted(const fskit::FSItemRef&, NTFSListPosition&,
                             fskit::FSDirectoryEntryPacker&) override;
    Outcome<std::string> shortName(const fskit::FSFileName&, const fskit::FSItemRef&) override;
    Outcome<std::size_t> countNames(const fskit::FSItemRef& item) override;
    Outcome<std::size_t> xattrSize(const fskit::FSFileName&, const fskit::FSItemRef&) override;
    Outcome<void> allocate(const fskit::FSItemRef& item, std::uint64_t offset, std::uint64_t length,
                           NTFSAllocation how) override;
    Outcome<std::uint64_t> seek(const fskit::FSItemRef&, std::uint64_t, bool forHole) override;
    Outcome<void> keepOwners(const DefaultOwner& others) override;
    Outcome<void> prefaultCache() override;
    [[nodiscard]] std::uint64_t serialNumber() const override { return ntfs->serial(); }
    Outcome<std::string> label() override;
    Outcome<std::uint64_t> filesInUse() override;
    Outcome<std::uint64_t> trim(const NTFSTrimRange&, const std::function<bool()>&) override;
    Outcome<NTFSIOStats> ioStatistics() override;

    /// Never held across a call into `ntfs`.
    mutable Mutex items TAVELIN_ACQUIRED_AFTER(lock_order::hostTables)
        TAVELIN_ACQUIRED_BEFORE(lock_order::volume);

  private:
    using Snapshot = KeptListings::Snapshot;
    class Pager;

    /// The same object as an NItem. Throws MissingItem for none; an item of another file system
    /// stops the process.
    static NItem& n(const fskit::FSItemRef& item);
    /// Gives back what was reserved for an item that is not open any more.
    void trimReserved(NItem& item) noexcept;
    /// Throws NTFSError kEROFS when changes are refused although the volume could be written.
    void requireChangeable() const;
    /// The text of a name; throws NTFSError kEINVAL when it has none.
    static std::string_view name(const fskit::FSFileName& name);

    /// Whether an item of another name may be meant.
    [[nodiscard]] bool mayBeStoredOtherwise(std::string_view name) const noexcept;
    /// The attributes of what a name stands for. A name that is there only in another normal form,
    /// or another case, becomes the stored one, in `memory`.
    std::optional<NTFSAttributes> find(std::string_view& name, std::uint64_t directory,
                                       std::string& memory);
    /// The name by which an existing item is to be asked for: as it is stored, or as given where
    /// there is none.
    std::string_view existingName(std::string_view given, std::uint64_t directory,
                                  std::string& memory);
    /// The name of an item that is to be made: that of an item which is there already, or composed.
    std::string_view newName(std::string_view given, std::uint64_t directory, std::string& memory);
    /// The new name of a renamed item: the same, but a stored form of the item's own name makes way
    /// for the form that is asked for.
    std::string_view renamedTo(std::string_view given, std::uint64_t directory,
                               const fskit::FSItemRef& moved, std::string& memory);
    /// The item of a file, found or made, under the lock. One that is found keeps its parent. The
    /// reference is valid until the item is taken out of the registry.
    const std::shared_ptr<NItem>& itemLocked(std::uint64_t reference, std::uint64_t parent)
        TAVELIN_REQUIRES(items);
    /// item(), and counts that it is handed out. `moves` is the number of moves before the caller
    /// found the file in `parent`; after another one the item keeps the parent that it has.
    std::shared_ptr<NItem> handOut(std::uint64_t reference, std::uint64_t parent,
                                   std::uint64_t moves) TAVELIN_EXCLUDES(items);
    /// Notes that an item is in another directory from now on.
    void noteMoved(NItem& item, const NItem& directory) TAVELIN_REQUIRES(items);
    /// Fills in the attributes of an item that is reached through `parent`, a record number.
    void describe(const NTFSAttributes& record, std::uint64_t parent,
                  fskit::FSItemAttributes& result) const;
    /// The same of one that may not have been readable: then no attribute is valid.
    fskit::FSItemAttributes described(const std::optional<NTFSAttributes>& record,
                                      std::uint64_t parent) const;
    /// The answer to a lookup: the item, handed out, with its attributes. Of `moves` see handOut().
    fskit::FSLookupItemResult found(const NTFSAttributes& record, std::uint64_t parent,
                                    const fskit::FSFileName& name, std::uint64_t moves);
    /// The answer to a creation: the same with the attributes of the directory.
    fskit::FSCreateItemResult created(const NTFSChange& change, const NItem& parent,
                                      const fskit::FSFileName& name, std::uint64_t moves);
    /// The owner and mode of a request; absent values where they are not valid or not kept.
    [[nodiscard]] NTFSOwner ownerIn(const fskit::FSItemAttributes& request) const;
    /// What is kept of an item's owner, completed by what is shown of it.
    [[nodiscard]] NTFSOwner shownOwner(const NTFSAttributes& record) const;
    /// Applies the attributes that an item is made with, as far as that goes.
    void applyToNew(fskit::FSItemSetAttributesRequest& request, fskit::FSCreateItemResult& fresh);
    /// Takes this very object out of the registry, if it is there, and answers what is left to be
    /// freed once the lock is released.
    std::shared_ptr<NItem> takeOut(const NItem& item) TAVELIN_REQUIRES(items);
    /// The parent of an item that an older listing of `directory` shows: the one it was moved to
    /// since, when it is registered. Both are record numbers.
    std::uint64_t parentOf(std::uint64_t reference, std::uint64_t directory) const
        TAVELIN_EXCLUDES(items);
    /// The listing to serve a page from: the reader's own, or a fresh one.
    Snapshot listing(const NItem& directory, fskit::FSDirectoryCookie cookie,
                     fskit::FSDirectoryVerifier verifier, OrphanView* orphans)
        TAVELIN_EXCLUDES(items);
    /// Of the item that has an entry's name now; absent when the name has been removed. The name of
    /// an orphan is not its own any more.
    [[nodiscard]] std::optional<NTFSAttributes>
    currentAttributes(const NTFSDirEntry& entry, const NItem& directory, bool isOrphan);
    /// Packs one page of a listing. With `described`, entries carry attributes, read one by one.
    void packEntries(const Driver2::DirectorySnapshot& listing, const NItem& directory,
                     bool described, const OrphanView* orphans, Pager& pager);

    /// By record number: a record has one file at a time.
    std::unordered_map<std::uint64_t, std::shared_ptr<NItem>> registry_ TAVELIN_GUARDED_BY(items);
    /// Of readers that have not reached the end.
    KeptListings listings_ TAVELIN_GUARDED_BY(items);
    /// How many items were moved to another directory. Written under `items`.
    std::atomic<std::uint64_t> moves_{0};
    /// The verifier of the youngest listing that a rename to another directory came after: it and
    /// older ones may show items that have another parent by now. Written under `items`.
    std::atomic<std::uint64_t> movedSince_{0};
    /// The one item that a reclaim leaves registered.
    std::shared_ptr<NItem> root_ TAVELIN_GUARDED_BY(items);
    /// On at first, as FSKit has it.
    std::atomic<bool> openCloseInhibited_{true};
    std::atomic<bool> normalizesNames_{false};
    std::atomic<bool> ignoresCase_{false};
    /// Set by an activation with "ro" and never cleared.
    std::atomic<bool> refusesChanges_{false};
    std::atomic<bool> isActivated_{false};
    /// Of items without; set by keepOwners(), before the volume is shared between threads.
    std::optional<DefaultOwner> defaultOwner_;
    /// The user and group that all items are shown to belong to otherwise: those of the process.
    const std::uint32_t uid_;
    const std::uint32_t gid_;
};

} // namespace tavelin
