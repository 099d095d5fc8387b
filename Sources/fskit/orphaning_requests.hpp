/// The requests about names for a host whose kernel goes on using an item after its name is gone.
///
/// FSKit's contract: removing or replacing a file takes its name alone, and the file itself goes
/// with the reclaim of its item. NTFS frees a file's record with its last name. So a file that
/// loses its last name is moved to the orphan directory first, and is removed there when the host
/// deactivates its item or gives it back, at the unmount, or by the next activation when none of
/// these came.
///
/// What is done to keep a file is counted as nothing but the request that made it necessary.
///
/// Beside the volume, which a host asks for everything that is not declared here. Keeping a file is
/// never a reason to fail: where there is no room for an orphan, the name goes and the file with
/// it, as a full volume must be able to free room.
///
/// Threads: any thread may call anything. names_ is held across requests about names that may
/// orphan a file; it comes before the volume's own locks. Errors are the volume's.
#pragma once

#include "fskit/orphan_files.hpp"
#include "fskit/tavelin_volume.hpp"
#include "platform/lock_order.hpp"
#include "platform/mutex.hpp"

#include <atomic>
#include <cstdint>
#include <optional>

namespace tavelin {

class OrphaningRequests {
  public:
    /// The volume must outlive this.
    explicit OrphaningRequests(TavelinVolume& volume) : volume_(volume), orphans_(volume) {}

    /// The host keeps removed files usable by itself from now on, as FSKit's open-unlink emulation
    /// does. It says nothing of files that a rename replaces, which are still kept here.
    void leaveRemovalsToHost() noexcept { hostKeepsRemoved_ = true; }

    /// Also removes the orphans that an earlier mount left behind.
    Outcome<fskit::FSItemRef> activate(const fskit::FSTaskOptions& options);
    /// Removes all orphans, then flushes.
    void unmount();
    /// Removes what orphans are left, then closes the volume.
    Outcome<void> deactivate(fskit::FSDeactivateOptions options);
    /// Also reports an orphan that could not be removed since the last call.
    Outcome<void> synchronize(fskit::FSSyncFlags flags);

    /// The link count of an orphan is 0.
    Outcome<fskit::FSItemAttributes> getAttributes(const fskit::FSItemGetAttributesRequest& desired,
                                                   const fskit::FSItemRef& item);
    Outcome<fskit::FSItemAttributes> setAttributes(fskit::FSItemSetAttributesRequest& changes,
                                                   const fskit::FSItemRef& item);
    /// See TavelinVolume::attributesBeside().
    Outcome<fskit::FSItemAttributes> attributesBeside(const fskit::FSItemRef& item);
    /// The orphan directory has no name that a host could find, make or list.
    Outcome<fskit::FSLookupItemResult> lookupItem(const fskit::FSFileName& name,
                                                  const fskit::FSItemRef& directory);
    Outcome<fskit::FSCreateItemResult> createItem(const fskit::FSFileName& name,
                                                  fskit::FSItemType type,
                                                  const fskit::FSItemRef& directory,
                                                  fskit::FSItemSetAttributesRequest& attributes);
    Outcome<fskit::FSCreateItemResult>
    createSymbolicLink(const fskit::FSFileName& name, const fskit::FSItemRef& directory,
                       fskit::FSItemSetAttributesRequest& attributes,
                       const fskit::FSFileName& linkContents);
    Outcome<fskit::FSDirectoryVerifier>
    enumerateDirectory(const fskit::FSItemRef& directory, fskit::FSDirectoryCookie startingAt,
                       fskit::FSDirectoryVerifier verifier,
                       const fskit::FSItemGetAttributesRequest* attributes,
                       fskit::FSDirectoryEntryPacker& packer);

    /// The item stays usable until it is reclaimed, unless removals are left to the host.
    Outcome<fskit::FSRemoveItemResult> removeItem(const fskit::FSItemRef& item,
                                                  const fskit::FSFileName& name,
                                                  const fskit::FSItemRef& directory);
    /// `overItem` stays usable until it is reclaimed.
    Outcome<fskit::FSRenameItemResult>
    renameItem(const fskit::FSItemRef& item, const fskit::FSItemRef& sourceDirectory,
               const fskit::FSFileName& sourceName, const fskit::FSFileName& destinationName,
               const fskit::FSItemRef& destinationDirectory, const fskit::FSItemRef& overItem);
    /// The attributes of an item, with a link count of 0 when it has lost its last name.
    [[nodiscard]] fskit::FSItemAttributes adjusted(fskit::FSItemAttributes attributes) const;

    /// What a host that takes no answer without attributes is told of an item that was changed. In
    /// `told`, nothing is valid when the item could not be read together with the change, which
    /// stands all the same. It is read once more then. Of a directory, or of an item that was
    /// removed, what is known without reading will do; a wrong size would cost a file its data, so
    /// of one that cannot be read nothing is valid in the answer either.
    [[nodiscard]] fskit::FSItemAttributes ofChanged(const fskit::FSItemAttributes& told,
                                                    const fskit::FSItemRef& item);
    [[nodiscard]] fskit::FSItemAttributes ofDirectory(const fskit::FSItemAttributes& told,
                                                      const fskit::FSItemRef& directory);
    [[nodiscard]] fskit::FSItemAttributes ofRemoved(const fskit::FSItemAttributes& told,
                                                    const fskit::FSItemRef& item);
    /// An orphan is removed: nobody has it open, and nobody can open it any more.
    void deactivateItem(const fskit::FSItemRef& item);
    /// To be called once the host has given an item back for good.
    void reclaimed(const fskit::FSItemRef& item);

  private:
    /// A file under its name, as a request finds it.
    struct NamedFile {
        ItemRef file;
        fskit::FSFileName name; ///< as it is stored
        bool mayHaveOtherNames = false;
    };
    /// The file that a name stands for, when it is this very item; absent for directories, links
    /// and names that stand for something else.
    std::optional<NamedFile> fileAt(const fskit::FSItemRef& item, const fskit::FSFileName& name,
                                    const fskit::FSItemRef& directory);
    /// Whether a name is that of the orphan directory.
    bool isHidden(const fskit::FSFileName& name, const fskit::FSItemRef& directory);
    /// Makes a file an orphan by taking its name; absent where nothing was done.
    std::optional<fskit::FSRemoveItemResult> orphaned(const fskit::FSItemRef& item,
                                                      const fskit::FSFileName& name,
                                                      const fskit::FSItemRef& directory)
        TAVELIN_REQUIRES(names_);
    /// The file that a rename is about to replace, prepared for it; absent where there is none, or
    /// no room to keep it.
    std::optional<NamedFile> replaced(const fskit::FSItemRef& over, const fskit::FSFileName& name,
                                      const fskit::FSItemRef& directory) TAVELIN_REQUIRES(names_);
    [[nodiscard]] Outcome<fskit::FSItemAttributes>
    adjusted(Outcome<fskit::FSItemAttributes> attributes) const;

    TavelinVolume& volume_;
    OrphanFiles orphans_;
    std::atomic<bool> hostKeepsRemoved_{false};
    std::atomic<bool> isCleanedUp_{false};
    Mutex names_ TAVELIN_ACQUIRED_AFTER(lock_order::maintenance)
        TAVELIN_ACQUIRED_BEFORE(lock_order::directories);
};

} // namespace tavelin
