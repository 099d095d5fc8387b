/// A mounted volume and the requests that a host sends it.
///
/// Requests come on threads of the host's choosing, several at once. Each answers its reply handler
/// exactly once, before it returns or later, from any thread. On failure the error is set and the
/// values are to be ignored; on success the error is absent and items and names are set.
///
/// An absent (null) item is answered ENOENT where a request says that it takes one.
#pragma once

#include "fskit/api/directory.hpp"
#include "fskit/api/entity_identifier.hpp"
#include "fskit/api/error.hpp"
#include "fskit/api/file_data_buffer.hpp"
#include "fskit/api/file_name.hpp"
#include "fskit/api/item.hpp"
#include "fskit/api/task.hpp"
#include "fskit/api/volume_types.hpp"
#include "platform/mutex.hpp"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace fskit {

using FSItemRef = std::shared_ptr<FSItem>;
using MaybeError = std::optional<Error>;

using ErrorReply = std::function<void(const MaybeError&)>;
using ItemReply = std::function<void(FSItemRef, const MaybeError&)>;
using NamedItemReply = std::function<void(FSItemRef, const FSFileName&, const MaybeError&)>;
using NameReply = std::function<void(const std::optional<FSFileName>&, const MaybeError&)>;
using AttributesReply =
    std::function<void(const std::optional<FSItemAttributes>&, const MaybeError&)>;
using VerifierReply = std::function<void(FSDirectoryVerifier, const MaybeError&)>;
using CountReply = std::function<void(std::size_t, const MaybeError&)>;
using DataReply = std::function<void(std::vector<std::byte>, const MaybeError&)>;
using NamesReply = std::function<void(std::vector<FSFileName>, const MaybeError&)>;

/// Base of all volumes: identity and name.
class FSVolume {
  public:
    FSVolume(FSVolumeIdentifier volumeID, FSFileName volumeName)
        : volumeID_(volumeID), name_(std::move(volumeName)) {}
    virtual ~FSVolume() = default;
    FSVolume(const FSVolume&) = delete;
    FSVolume& operator=(const FSVolume&) = delete;

    const FSVolumeIdentifier& volumeID() const noexcept { return volumeID_; }
    /// Atomic, as FSKit's property is.
    FSFileName name() const {
        const tavelin::MutexLock held(nameLock_);
        return name_;
    }
    void setName(FSFileName name) {
        const tavelin::MutexLock held(nameLock_);
        name_ = std::move(name);
    }

  private:
    const FSVolumeIdentifier volumeID_;
    mutable tavelin::Mutex nameLock_;
    FSFileName name_ TAVELIN_GUARDED_BY(nameLock_);
};

class FSVolumePathConfOperations {
  public:
    virtual ~FSVolumePathConfOperations() = default;
    virtual std::int64_t maximumLinkCount() const = 0;
    virtual std::int64_t maximumNameLength() const = 0;
    virtual bool restrictsOwnershipChanges() const = 0;
    virtual bool truncatesLongNames() const = 0;
    virtual std::int64_t maximumXattrSize() const = 0; ///< bytes
    virtual std::uint64_t maximumFileSize() const = 0; ///< bytes
};

class FSVolumeOperations : public FSVolumePathConfOperations {
  public:
    virtual FSVolumeSupportedCapabilities supportedVolumeCapabilities() const = 0;
    virtual FSStatFSResult volumeStatistics() = 0;
    /// Read by the host after the reply to mount: read-only for a volume that takes no changes.
    virtual FSMountOptions requestedMountOptions() const { return 0; }

    virtual void activate(const FSTaskOptions& options, const ItemReply& reply) = 0;
    virtual void mount(const FSTaskOptions& options, const ErrorReply& reply) = 0;
    virtual void unmount(const std::function<void()>& reply) = 0;
    virtual void synchronize(FSSyncFlags flags, const ErrorReply& reply) = 0;
    virtual void deactivate(FSDeactivateOptions options, const ErrorReply& reply) = 0;

    virtual void getAttributes(const FSItemGetAttributesRequest& desired, const FSItemRef& item,
                               const AttributesReply& reply) = 0;
    virtual void setAttributes(FSItemSetAttributesRequest& changes, const FSItemRef& item,
                               const AttributesReply& reply) = 0;
    virtual void lookupItem(const FSFileName& name, const FSItemRef& directory,
                            const NamedItemReply& reply) = 0;
    virtual void reclaimItem(const FSItemRef& item, const ErrorReply& reply) = 0;
    virtual void readSymbolicLink(const FSItemRef& item, const NameReply& reply) = 0;
    virtual void createItem(const FSFileName& name, FSItemType type, const FSItemRef& directory,
                            FSItemSetAttributesRequest& attributes,
                            const NamedItemReply& reply) = 0;
    virtual void createSymbolicLink(const FSFileName& name, const FSItemRef& directory,
                                    FSItemSetAttributesRequest& attributes,
                                    const FSFileName& linkContents,
                                    const NamedItemReply& reply) = 0;
    virtual void createLink(const FSItemRef& item, const FSFileName& name,
                            const FSItemRef& directory, const NameReply& reply) = 0;
    virtual void removeItem(const FSItemRef& item, const FSFileName& name,
                            const FSItemRef& directory, const ErrorReply& reply) = 0;
    /// `overItem` is the item being replaced, null when there is none.
    virtual void renameItem(const FSItemRef& item, const FSItemRef& sourceDirectory,
                            const FSFileName& sourceName, const FSFileName& destinationName,
                            const FSItemRef& destinationDirectory, const FSItemRef& overItem,
                            const NameReply& reply) = 0;
    /// `attributes` null asks for a plain listing with "." and "..", otherwise they are left out.
    virtual void enumerateDirectory(const FSItemRef& directory, FSDirectoryCookie startingAt,
                                    FSDirectoryVerifier verifier,
                                    const FSItemGetAttributesRequest* attributes,
                                    FSDirectoryEntryPacker& packer, const VerifierReply& reply) = 0;
};

class FSVolumeReadWriteOperations {
  public:
    virtual ~FSVolumeReadWriteOperations() = default;
    virtual void read(const FSItemRef& item, std::int64_t offset, std::size_t length,
                      FSMutableFileDataBuffer& buffer, const CountReply& reply) = 0;
    virtual void write(std::span<const std::byte> contents, const FSItemRef& item,
                       std::int64_t offset, const CountReply& reply) = 0;
};

class FSVolumeOpenCloseOperations {
  public:
    virtual ~FSVolumeOpenCloseOperations() = default;
    /// While true the host sends neither opens nor closes.
    virtual bool isOpenCloseInhibited() const = 0;
    virtual void setOpenCloseInhibited(bool inhibited) = 0;
    virtual void openItem(const FSItemRef& item, FSVolumeOpenModes modes,
                          const ErrorReply& reply) = 0;
    /// `modes` are those that remain; none means the last close.
    virtual void closeItem(const FSItemRef& item, FSVolumeOpenModes modes,
                           const ErrorReply& reply) = 0;
};

class FSVolumeRenameOperations {
  public:
    virtual ~FSVolumeRenameOperations() = default;
    virtual void setVolumeName(const FSFileName& name, const NameReply& reply) = 0;
};

class FSVolumeXattrOperations {
  public:
    virtual ~FSVolumeXattrOperations() = default;
    virtual void getXattr(const FSFileName& name, const FSItemRef& item,
                          const DataReply& reply) = 0;
    /// An absent value is an empty one.
    virtual void setXattr(const FSFileName& name,
                          const std::optional<std::span<const std::byte>>& value,
                          const FSItemRef& item, FSSetXattrPolicy policy,
                          const ErrorReply& reply) = 0;
    virtual void listXattrs(const FSItemRef& item, const NamesReply& reply) = 0;
};

} // namespace fskit
