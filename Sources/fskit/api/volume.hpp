/// A mounted volume and the requests that a host sends it.
///
/// Requests come on threads of the host's choosing, several at once. Each is carried out and
/// answered before it returns: an Outcome holds the value or the error. Sizes and offsets are
/// bytes.
///
/// A request that takes an item answers ENOENT for an absent (null) one, and ESTALE for an item
/// whose file is gone. An item that a request hands out is the host's until the host reclaims it.
#pragma once

#include "fskit/api/directory.hpp"
#include "fskit/api/entity_identifier.hpp"
#include "fskit/api/error.hpp"
#include "fskit/api/file_data_buffer.hpp"
#include "fskit/api/file_name.hpp"
#include "fskit/api/item.hpp"
#include "fskit/api/outcome.hpp"
#include "fskit/api/task.hpp"
#include "fskit/api/volume_types.hpp"
#include "platform/mutex.hpp"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace fskit {

using FSItemRef = std::shared_ptr<FSItem>;

// What requests answer. Beside its own result, a request that changes something tells what the host
// would ask for next: the attributes of what it changed and the free space in bytes, all read
// without another change in between. Attributes of which none is valid could not be read; the
// change stands all the same.

/// `itemName` is the name as the volume stores it.
struct FSLookupItemResult {
    FSItemRef foundItem;
    FSFileName itemName;
    FSItemAttributes itemAttributes;
};

/// `newItemName` is the name as it was stored.
struct FSCreateItemResult {
    /// Handed out, like the item of a lookup.
    FSItemRef newItem;
    FSFileName newItemName;
    FSItemAttributes newItemAttributes;
    FSItemAttributes directoryAttributes;
    std::uint64_t freeSpace = 0;
};

/// `linkAttributes` are those of the file, whose link count has grown.
struct FSCreateLinkResult {
    FSFileName linkName;
    FSItemAttributes linkAttributes;
    FSItemAttributes directoryAttributes;
    std::uint64_t freeSpace = 0;
};

/// An item that lost its last name has a link count of 0.
struct FSRemoveItemResult {
    FSItemAttributes itemAttributes;
    FSItemAttributes directoryAttributes;
    std::uint64_t freeSpace = 0;
};

/// Where both names are in one directory, the attributes of the two directories are the same.
struct FSRenameItemResult {
    /// As it was stored.
    FSFileName newName;
    FSItemAttributes renamedItemAttributes;
    FSItemAttributes sourceDirectoryAttributes;
    FSItemAttributes destinationDirectoryAttributes;
    /// Of the item that the new name stood for, absent when there was none.
    std::optional<FSItemAttributes> overItemAttributes;
    std::uint64_t freeSpace = 0;
};

/// The attributes are those after the write, with the file's new size and times. They and the free
/// space are answered when they are asked for.
struct FSWriteFileResult {
    /// Fewer than were given when the volume is full before the end.
    std::size_t bytesWritten = 0;
    FSItemAttributes itemAttributes;
    std::uint64_t freeSpace = 0;
};

/// The file's size is what it was; its allocated size has grown by the bytes.
struct FSPreallocateResult {
    std::size_t bytesAllocated = 0;
    FSItemAttributes itemAttributes;
    std::uint64_t freeSpace = 0;
};

/// Base of all volumes: identity and name.
class FSVolume {
  public:
    /// The identifier never changes; the name does with setName().
    FSVolume(FSVolumeIdentifier volumeID, FSFileName volumeName)
        : volumeID_(volumeID), name_(std::move(volumeName)) {}
    virtual ~FSVolume() = default;
    FSVolume(const FSVolume&) = delete;
    FSVolume& operator=(const FSVolume&) = delete;

    /// By which the host recognises the volume at the next load.
    const FSVolumeIdentifier& volumeID() const noexcept { return volumeID_; }
    /// Atomic, as FSKit's property is.
    FSFileName name() const {
        const tavelin::MutexLock held(nameLock_);
        return name_;
    }
    /// The name alone. The label on the volume is for setVolumeName().
    void setName(FSFileName name) {
        const tavelin::MutexLock held(nameLock_);
        name_ = std::move(name);
    }

  private:
    const FSVolumeIdentifier volumeID_;
    mutable tavelin::Mutex nameLock_;
    FSFileName name_ TAVELIN_GUARDED_BY(nameLock_);
};

/// The limits that pathconf(2) answers to programs. Constant for the life of a volume.
class FSVolumePathConfOperations {
  public:
    virtual ~FSVolumePathConfOperations() = default;
    /// Names that one file may have.
    virtual std::int64_t maximumLinkCount() const = 0;
    /// In the volume's own units, see its documentation.
    virtual std::int64_t maximumNameLength() const = 0;
    /// Whether only an administrator may change owners.
    virtual bool restrictsOwnershipChanges() const = 0;
    /// Whether names that are too long are cut; false means that they are refused.
    virtual bool truncatesLongNames() const = 0;
    virtual std::int64_t maximumXattrSize() const = 0; ///< bytes
    virtual std::uint64_t maximumFileSize() const = 0; ///< bytes
};

/// What every volume answers. The interfaces below are for volumes that can do more.
class FSVolumeOperations : public FSVolumePathConfOperations {
  public:
    /// Constant from activation on.
    virtual FSVolumeSupportedCapabilities supportedVolumeCapabilities() const = 0;
    /// Sizes and counts at this moment. Has no way to fail.
    virtual FSStatFSResult volumeStatistics() = 0;
    /// Read by the host after the reply to mount: read-only for a volume that takes no changes.
    virtual FSMountOptions requestedMountOptions() const { return 0; }

    /// Answers the root directory.
    virtual Outcome<FSItemRef> activate(const FSTaskOptions& options) = 0;
    /// The steps of a mount, in the order in which the host sends them. No request is in flight
    /// while unmount and deactivate run.
    virtual Outcome<void> mount(const FSTaskOptions& options) = 0;
    virtual void unmount() = 0;
    /// With flags that wait, success means that everything answered before is durable.
    virtual Outcome<void> synchronize(FSSyncFlags flags) = 0;
    /// The last request. Nothing is answered afterwards but the reclaim of items.
    virtual Outcome<void> deactivate(FSDeactivateOptions options) = 0;

    /// The attributes at this moment; at least those that are desired and that the volume has.
    virtual Outcome<FSItemAttributes> getAttributes(const FSItemGetAttributesRequest& desired,
                                                    const FSItemRef& item) = 0;
    /// Answers the attributes as they are then. `changes` tells which were applied, also when a
    /// later one failed.
    virtual Outcome<FSItemAttributes> setAttributes(FSItemSetAttributesRequest& changes,
                                                    const FSItemRef& item) = 0;
    /// The item of a name, handed out once more. ENOENT when there is no such name.
    virtual Outcome<FSLookupItemResult> lookupItem(const FSFileName& name,
                                                   const FSItemRef& directory) = 0;
    /// Takes an item back that was handed out; an absent one is ignored.
    virtual void reclaimItem(const FSItemRef& item) = 0;
    /// The target as text, which the host follows itself.
    virtual Outcome<FSFileName> readSymbolicLink(const FSItemRef& item) = 0;
    /// Makes a file or a directory, EEXIST when the name is taken. `attributes` are applied as far
    /// as possible, and it marks which were.
    virtual Outcome<FSCreateItemResult> createItem(const FSFileName& name, FSItemType type,
                                                   const FSItemRef& directory,
                                                   FSItemSetAttributesRequest& attributes) = 0;
    /// `linkContents` is stored as it is, whether or not it leads anywhere.
    virtual Outcome<FSCreateItemResult> createSymbolicLink(const FSFileName& name,
                                                           const FSItemRef& directory,
                                                           FSItemSetAttributesRequest& attributes,
                                                           const FSFileName& linkContents) = 0;
    /// The names in the answers of this and of renameItem() are those that were stored.
    virtual Outcome<FSCreateLinkResult> createLink(const FSItemRef& item, const FSFileName& name,
                                                   const FSItemRef& directory) = 0;
    /// Removes a name; the item lives on in the host's hands until it is reclaimed.
    virtual Outcome<FSRemoveItemResult> removeItem(const FSItemRef& item, const FSFileName& name,
                                                   const FSItemRef& directory) = 0;
    /// `overItem` is the item being replaced, null when there is none.
    virtual Outcome<FSRenameItemResult>
    renameItem(const FSItemRef& item, const FSItemRef& sourceDirectory,
               const FSFileName& sourceName, const FSFileName& destinationName,
               const FSItemRef& destinationDirectory, const FSItemRef& overItem) = 0;
    /// `attributes` null asks for a plain listing with "." and "..", otherwise they are left out.
    /// Answers the verifier to pass with the next cookie.
    virtual Outcome<FSDirectoryVerifier>
    enumerateDirectory(const FSItemRef& directory, FSDirectoryCookie startingAt,
                       FSDirectoryVerifier verifier, const FSItemGetAttributesRequest* attributes,
                       FSDirectoryEntryPacker& packer) = 0;
};

/// File contents.
class FSVolumeReadWriteOperations {
  public:
    virtual ~FSVolumeReadWriteOperations() = default;
    /// Answers the bytes that were read.
    virtual Outcome<std::size_t> read(const FSItemRef& item, std::int64_t offset,
                                      std::size_t length, FSMutableFileDataBuffer& buffer) = 0;
    /// Writes at `offset` and extends the file where needed. `attributes` null asks for the count
    /// alone, which is cheaper for the many small writes of a host that needs no more.
    virtual Outcome<FSWriteFileResult> write(std::span<const std::byte> contents,
                                             const FSItemRef& item, std::int64_t offset,
                                             const FSItemGetAttributesRequest* attributes) = 0;
};

/// For volumes that can reserve space and tell data from holes.
class FSVolumeSpaceOperations {
  public:
    virtual ~FSVolumeSpaceOperations() = default;
    /// Reserves space for a file, which keeps its size. ENOSPC with nothing reserved.
    virtual Outcome<FSPreallocateResult> preallocateSpace(const FSItemRef& item,
                                                          std::int64_t offset, std::size_t length,
                                                          FSPreallocateFlags flags) = 0;
    /// The first byte of the region at or after the offset. ENXIO when there is none.
    virtual Outcome<std::uint64_t> seekRegion(const FSItemRef& item, std::int64_t offset,
                                              FSSeekRegion region) = 0;
};

/// For volumes that want to know which items are open, and in which modes.
class FSVolumeOpenCloseOperations {
  public:
    virtual ~FSVolumeOpenCloseOperations() = default;
    /// While true the host sends neither opens nor closes.
    virtual bool isOpenCloseInhibited() const = 0;
    /// Sets whether opens and closes are left out.
    virtual void setOpenCloseInhibited(bool inhibited) = 0;
    virtual Outcome<void> openItem(const FSItemRef& item, FSVolumeOpenModes modes) = 0;
    /// `modes` are those that remain; none means the last close. Never fails.
    virtual void closeItem(const FSItemRef& item, FSVolumeOpenModes modes) = 0;
};

/// For volumes that have something to do when nobody uses an item any more.
class FSVolumeItemDeactivation {
  public:
    virtual ~FSVolumeItemDeactivation() = default;
    /// The items of which the host tells so. Constant from load on.
    virtual FSItemDeactivationOptions itemDeactivationPolicy() const = 0;
    /// After the last close, and after the last mapping in memory. Never fails.
    virtual void deactivateItem(const FSItemRef& item) = 0;
};

/// For volumes whose name can be changed.
class FSVolumeRenameOperations {
  public:
    virtual ~FSVolumeRenameOperations() = default;
    /// Renames the volume; answers the name that was stored.
    virtual Outcome<FSFileName> setVolumeName(const FSFileName& name) = 0;
};

/// Extended attributes. Names are single components, values are bytes.
class FSVolumeXattrOperations {
  public:
    virtual ~FSVolumeXattrOperations() = default;
    /// The whole value of an extended attribute. ENOATTR when there is none of this name.
    virtual Outcome<std::vector<std::byte>> getXattr(const FSFileName& name,
                                                     const FSItemRef& item) = 0;
    /// An absent value is an empty one.
    virtual Outcome<void> setXattr(const FSFileName& name,
                                   const std::optional<std::span<const std::byte>>& value,
                                   const FSItemRef& item, FSSetXattrPolicy policy) = 0;
    /// The names of all attributes of an item, in no particular order.
    virtual Outcome<std::vector<FSFileName>> listXattrs(const FSItemRef& item) = 0;
};

} // namespace fskit
