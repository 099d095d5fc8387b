/// The volume that a host holds for one loaded NTFS volume: its requests, and the registry that
/// gives each inode number one item.
///
/// Made by TavelinFileSystem's load around an open NTFSVolume; the host activates it, mounts it,
/// sends requests, synchronises, unmounts, reclaims the items and deactivates it, and then unloads.
///
/// Threads. Requests may come from any thread at any time. `items` guards the registry, the
/// generation and every item's snapshot; it is never held across a call into the NTFSVolume, whose
/// own lock serialises the volume. Replies are given before a request returns, on its thread, and
/// never under a lock.
///
/// Errors are POSIX errors with macOS numbers. A request that takes an item and is given none
/// answers kENOENT; failures of the volume (the table in core/ntfs_volume.hpp) are answered as they
/// are and tallied under the request's bare name; a name that is empty or not UTF-8 is kEINVAL.
/// An item that is not this module's own, a negative offset and an overflowing generation stop the
/// process.
#pragma once

#include "core/driver2/directory_snapshot.hpp"
#include "core/ntfs_volume.hpp"
#include "fskit/api/volume.hpp"
#include "fskit/extended_operations.hpp"
#include "fskit/n_item.hpp"
#include "fskit/resource_device.hpp"
#include "platform/mutex.hpp"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string_view>
#include <unordered_map>

namespace tavelin {

class TavelinVolume final : public fskit::FSVolume,
                            public fskit::FSVolumeOperations,
                            public fskit::FSVolumeReadWriteOperations,
                            public fskit::FSVolumeOpenCloseOperations,
                            public fskit::FSVolumeRenameOperations,
                            public fskit::FSVolumeXattrOperations,
                            public ExtendedOperations {
  public:
    /// Named after the volume's label, "NTFS" when that is empty or cannot be read; identified by
    /// the serial number.
    explicit TavelinVolume(std::shared_ptr<NTFSVolume> volume);

    const std::shared_ptr<NTFSVolume> ntfs;

    using FSVolume::name;

    /// The device at the bottom of `ntfs`, which owns it; set by load, before any request.
    std::weak_ptr<ResourceDevice> device;

    // ---- Items ---------------------------------------------------------------------------------

    /// The one item of an inode number, found or made, from now on reached through `parent`.
    [[nodiscard]] std::shared_ptr<NItem> item(std::uint64_t ino, std::uint64_t parent)
        TAVELIN_EXCLUDES(items);
    /// The root directory's item, its own parent; it stays registered for the volume's life.
    [[nodiscard]] std::shared_ptr<NItem> root() TAVELIN_EXCLUDES(items);
    /// Notes a change of a directory's names: raises the generation and drops its listing.
    void changed(NItem& directory) TAVELIN_EXCLUDES(items);

    /// The attributes of an item, every one that the volume knows, whatever is wanted. Throws
    /// NTFSError. What getAttributes answers, without a reply handler: for hosts that want them
    /// along with another request's answer.
    [[nodiscard]] fskit::FSItemAttributes attributes(const NItem& item) const;
    /// Applies what is valid in the request, in a fixed order (size, times, flags, then mode, owner
    /// and group, which are accepted and ignored), and marks each as consumed once it is. Throws
    /// the first failure; what was applied before it stays.
    void apply(fskit::FSItemSetAttributesRequest& request, const NItem& item);

    // ---- The volume ----------------------------------------------------------------------------

    [[nodiscard]] std::int64_t maximumLinkCount() const override { return 1024; }
    [[nodiscard]] std::int64_t maximumNameLength() const override { return 255; }
    [[nodiscard]] bool restrictsOwnershipChanges() const override { return false; }
    [[nodiscard]] bool truncatesLongNames() const override { return false; }
    [[nodiscard]] std::int64_t maximumXattrSize() const override { return 0x4000000; }
    [[nodiscard]] std::uint64_t maximumFileSize() const override { return 0x100000000000; }
    [[nodiscard]] fskit::FSVolumeSupportedCapabilities supportedVolumeCapabilities() const override;
    /// Only the type name when the volume cannot answer.
    [[nodiscard]] fskit::FSStatFSResult volumeStatistics() override;
    [[nodiscard]] fskit::FSMountOptions requestedMountOptions() const override {
        return ntfs->readOnly() ? fskit::FSMountOptionsReadOnly : 0;
    }

    /// Answers the root item. "windows_names" among the options switches that rule on; nothing
    /// switches it off again.
    void activate(const fskit::FSTaskOptions& options, const fskit::ItemReply& reply) override;
    void mount(const fskit::FSTaskOptions& options, const fskit::ErrorReply& reply) override;
    void unmount(const std::function<void()>& reply) override;
    /// Flushes unless the flags say not to wait.
    void synchronize(fskit::FSSyncFlags flags, const fskit::ErrorReply& reply) override;
    void deactivate(fskit::FSDeactivateOptions options, const fskit::ErrorReply& reply) override;
    void setVolumeName(const fskit::FSFileName& name, const fskit::NameReply& reply) override;

    // ---- Item requests -------------------------------------------------------------------------

    void reclaimItem(const fskit::FSItemRef& item, const fskit::ErrorReply& reply) override;
    [[nodiscard]] bool isOpenCloseInhibited() const override { return openCloseInhibited_; }
    void setOpenCloseInhibited(bool inhibited) override { openCloseInhibited_ = inhibited; }
    void openItem(const fskit::FSItemRef& item, fskit::FSVolumeOpenModes modes,
                  const fskit::ErrorReply& reply) override;
    /// The last close flushes the item, which is a flush of everything.
    void closeItem(const fskit::FSItemRef& item, fskit::FSVolumeOpenModes modes,
                   const fskit::ErrorReply& reply) override;

    void getAttributes(const fskit::FSItemGetAttributesRequest& desired,
                       const fskit::FSItemRef& item, const fskit::AttributesReply& reply) override;
    void setAttributes(fskit::FSItemSetAttributesRequest& changes, const fskit::FSItemRef& item,
                       const fskit::AttributesReply& reply) override;
    void lookupItem(const fskit::FSFileName& name, const fskit::FSItemRef& directory,
                    const fskit::NamedItemReply& reply) override;
    void readSymbolicLink(const fskit::FSItemRef& item, const fskit::NameReply& reply) override;
    /// A listing goes on where it was: a stale verifier means a fresh listing from the same cookie
    /// on, never an error.
    void enumerateDirectory(const fskit::FSItemRef& directory, fskit::FSDirectoryCookie startingAt,
                            fskit::FSDirectoryVerifier verifier,
                            const fskit::FSItemGetAttributesRequest* attributes,
                            fskit::FSDirectoryEntryPacker& packer,
                            const fskit::VerifierReply& reply) override;
    void read(const fskit::FSItemRef& item, std::int64_t offset, std::size_t length,
              fskit::FSMutableFileDataBuffer& buffer, const fskit::CountReply& reply) override;
    void write(std::span<const std::byte> contents, const fskit::FSItemRef& item,
               std::int64_t offset, const fskit::CountReply& reply) override;

    /// Files and directories only (kENOTSUP). Attributes that cannot be applied do not undo it.
    void createItem(const fskit::FSFileName& name, fskit::FSItemType type,
                    const fskit::FSItemRef& directory,
                    fskit::FSItemSetAttributesRequest& attributes,
                    const fskit::NamedItemReply& reply) override;
    /// The attributes are ignored.
    void createSymbolicLink(const fskit::FSFileName& name, const fskit::FSItemRef& directory,
                            fskit::FSItemSetAttributesRequest& attributes,
                            const fskit::FSFileName& linkContents,
                            const fskit::NamedItemReply& reply) override;
    /// Always kENOTSUP: hard links are never made.
    void createLink(const fskit::FSItemRef& item, const fskit::FSFileName& name,
                    const fskit::FSItemRef& directory, const fskit::NameReply& reply) override;
    void removeItem(const fskit::FSItemRef& item, const fskit::FSFileName& name,
                    const fskit::FSItemRef& directory, const fskit::ErrorReply& reply) override;
    void renameItem(const fskit::FSItemRef& item, const fskit::FSItemRef& sourceDirectory,
                    const fskit::FSFileName& sourceName, const fskit::FSFileName& destinationName,
                    const fskit::FSItemRef& destinationDirectory, const fskit::FSItemRef& overItem,
                    const fskit::NameReply& reply) override;

    void getXattr(const fskit::FSFileName& name, const fskit::FSItemRef& item,
                  const fskit::DataReply& reply) override;
    void setXattr(const fskit::FSFileName& name,
                  const std::optional<std::span<const std::byte>>& value,
                  const fskit::FSItemRef& item, fskit::FSSetXattrPolicy policy,
                  const fskit::ErrorReply& reply) override;
    void listXattrs(const fskit::FSItemRef& item, const fskit::NamesReply& reply) override;

    void lookupWithAttributes(const fskit::FSFileName& name, const fskit::FSItemRef& directory,
                              const DescribedItemReply& reply) override;
    void attributesOfEntry(fskit::FSItemID entry, const fskit::FSItemRef& directory,
                           const DescribedItemReply& reply) override;
    void linkInternal(const fskit::FSItemRef& item, const fskit::FSFileName& name,
                      const fskit::FSItemRef& directory, const fskit::ErrorReply& reply) override;
    void countNames(const fskit::FSItemRef& item, const fskit::CountReply& reply) override;
    void xattrSize(const fskit::FSFileName& name, const fskit::FSItemRef& item,
                   const fskit::CountReply& reply) override;
    void prefaultCache(const fskit::ErrorReply& reply) override;

    /// Never held across a call into `ntfs`.
    mutable Mutex items;

  private:
    using Snapshot = std::shared_ptr<const Driver2::DirectorySnapshot>;

    static bool isNull(const fskit::FSItemRef& item) noexcept { return item == nullptr; }
    /// The same object as an NItem; any other item stops the process.
    static NItem& n(const fskit::FSItemRef& item);
    /// The text of a name; throws NTFSError kEINVAL when it has none.
    static std::string_view name(const fskit::FSFileName& name);
    /// What a request that takes an item answers when it is given none.
    static fskit::Error missingItem();

    const std::shared_ptr<NItem>& itemLocked(std::uint64_t ino, std::uint64_t parent)
        TAVELIN_REQUIRES(items);
    /// item() for each of the entries, under one lock and without giving the items to anybody.
    void enter(std::span<const NTFSDirEntry> entries, std::uint64_t parent) TAVELIN_EXCLUDES(items);
    /// Fills in the attributes of an item that is reached through `parent`.
    void describe(std::uint64_t ino, std::uint64_t parent, fskit::FSItemAttributes& result) const;
    void describe(const NTFSAttributes& record, std::uint64_t parent,
                  fskit::FSItemAttributes& result) const;
    DescribedItem described(const NTFSAttributes& record, std::uint64_t parent);
    /// Takes the entry of this very object out of the registry, if it is there.
    void forget(const NItem& item) TAVELIN_EXCLUDES(items);
    /// The listing to serve a page from, taken afresh when the one kept does not fit.
    Snapshot listing(NItem& directory, fskit::FSDirectoryCookie cookie,
                     fskit::FSDirectoryVerifier verifier) TAVELIN_EXCLUDES(items);
    void packEntries(const Driver2::DirectorySnapshot& listing, std::uint64_t first,
                     const NItem& directory, bool withAttributes,
                     fskit::FSDirectoryEntryPacker& packer);

    std::unordered_map<std::uint64_t, std::shared_ptr<NItem>> registry_ TAVELIN_GUARDED_BY(items);
    std::uint64_t generation_ TAVELIN_GUARDED_BY(items) = 1;
    std::shared_ptr<NItem> root_ TAVELIN_GUARDED_BY(items);
    std::atomic<bool> openCloseInhibited_{true};
    const std::uint32_t uid_;
    const std::uint32_t gid_;
};

} // namespace tavelin
