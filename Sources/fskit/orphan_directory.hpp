/// The hidden directory in a volume's root that keeps orphans: files that lost their last name
/// while a program may have them open. Users do not see it. An orphan is removed when the host says
/// that nobody uses it any more or gives it back, else at the unmount, and where that fails or
/// never comes by the next mount.
///
/// The directory is made when it is first needed, under the first of kNamesMax names that is free:
/// what already has such a name is somebody else's and stays as it is. A named stream marks the
/// directory as this host's, so that the next mount knows it by more than its name. A crash between
/// the two leaves an empty directory that nobody removes.
///
/// Threading: any thread may call anything. lock_ is held across the calls into the volume that
/// find, make or remove the directory; it comes before the volume's own locks. Errors are the
/// volume's, in macOS numbers.
#pragma once

#include "fskit/item_ref.hpp"
#include "fskit/tavelin_volume.hpp"
#include "platform/lock_order.hpp"
#include "platform/mutex.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tavelin {

class OrphanDirectory {
  public:
    static constexpr std::string_view kName = ".tavelin-removed"; ///< or this and a number
    /// Enough for several crashes with directories that could not be emptied.
    static constexpr int kNamesMax = 16;
    static constexpr std::string_view kMarker = "tavelin.orphans"; ///< the stream's name

    /// The volume must outlive this.
    explicit OrphanDirectory(TavelinVolume& volume) : volume_(volume) {}
    OrphanDirectory(const OrphanDirectory&) = delete;
    OrphanDirectory& operator=(const OrphanDirectory&) = delete;

    /// The name of a file in it.
    static std::string nameOf(fskit::FSItemID id);

    /// The directory of this mount, made by the first call.
    Outcome<ItemRef> open();
    /// The name in the root that users must not see; empty while there is no directory.
    std::string hiddenName();
    /// Whether an item is that directory.
    bool is(fskit::FSItemID id);
    /// Removes the directory if open() was called, for unmounting. A directory that still has
    /// entries, which are not of this host's making then, stays; that is no error.
    Outcome<void> remove();
    /// Removes the orphans that an earlier mount left in such a directory, before open() is called,
    /// and leaves alone everything that this host did not make. Errors are logged only: the volume
    /// is usable all the same.
    void cleanUp();

  private:
    /// Makes the directory, hidden and marked. Without its mark it is removed again.
    Outcome<ItemRef> make(std::string_view name);
    /// Removes the orphans of a directory that an earlier mount left, then the directory.
    Outcome<void> empty(const fskit::FSItemRef& directory, std::string_view name);
    /// Removes one entry. A directory that is not empty stays, which is no error.
    Outcome<void> removeFrom(const fskit::FSItemRef& parent, std::string_view name);
    /// What a name stands for; absent for none.
    Outcome<std::optional<ItemRef>> find(const fskit::FSItemRef& parent, std::string_view name);

    TavelinVolume& volume_;
    // held while the directory is made or removed
    Mutex lock_ TAVELIN_ACQUIRED_AFTER(lock_order::maintenance)
        TAVELIN_ACQUIRED_BEFORE(lock_order::hostTables);
    ItemRef directory_ TAVELIN_GUARDED_BY(lock_);
    std::string name_ TAVELIN_GUARDED_BY(lock_); // of directory_
};

} // namespace tavelin
