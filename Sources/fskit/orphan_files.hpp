/// Files whose last name was unlinked while a program may still have them open.
///
/// A kernel gives an item back (FUSE: forgets, FSKit: reclaims) when the last user has closed its
/// file, which for a removed file that nobody has open is at once. So unlinking a file's last name
/// is deferred until then:
///
///   unlink pending  The name is still on the volume and is not shown. Nearly every removal ends in
///                   this state: the kernel lets go a moment later and the file is removed.
///   orphaned        The file has been moved to the orphan directory, because its name is needed,
///                   because its directory is being removed, because changes are synchronised, or
///                   because the file has been open for a second. Its name is free, and a mount
///                   after a crash removes the file.
///
/// On a volume without room for an orphan directory, files stay in the first state until there is.
/// A removal that fails after its caller was answered is reported by the next synchronise.
///
/// Threading: any thread may call anything. lock_ guards the table and is never held across a call
/// into the volume. Whoever works on one removal marks it busy and others wait for idle_; so at
/// most one thread at a time changes a removal, and its entry in the table stays valid meanwhile.
#pragma once

#include "fskit/item_ref.hpp"
#include "fskit/orphan_directory.hpp"
#include "fskit/tavelin_volume.hpp"
#include "platform/lock_order.hpp"
#include "platform/mutex.hpp"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace tavelin {

class OrphanFiles final : public OrphanView {
  public:
    /// The volume must outlive this.
    explicit OrphanFiles(TavelinVolume& volume) : volume_(volume), orphanDirectory_(volume) {}

    /// Removes the orphans that an earlier mount left behind, before there are any of this one.
    void cleanUp() { orphanDirectory_.cleanUp(); }

    /// Whether a name in the root is that of the directory for orphans, which users must not see.
    bool isHidden(std::string_view nameInRoot);
    /// That name; empty while there is none.
    std::string hiddenName() override { return orphanDirectory_.hiddenName(); }
    /// Whether an item is the directory for orphans.
    bool isOrphanDirectory(fskit::FSItemID id) { return orphanDirectory_.is(id); }

    /// Whether the user has unlinked the item's last name.
    [[nodiscard]] bool contains(fskit::FSItemID id) const override;
    /// Takes no lock: most requests only need to know that there is no orphan at all.
    bool isEmpty() const noexcept { return count_.load(std::memory_order_relaxed) == 0; }

    /// Unlinks a name of a file: at once when the file has other names, else deferred.
    /// `mayHaveOtherNames` is false for a link count of 1, which spares the question.
    Outcome<void> remove(const ItemRef& file, bool mayHaveOtherNames, const ItemRef& directory,
                         std::string_view name);
    /// The same without a deferral: the file is moved to the orphan directory, and its name is
    /// free, when this returns. Nothing has changed after an error.
    Outcome<fskit::FSRemoveItemResult> removeAtOnce(const ItemRef& file, bool mayHaveOtherNames,
                                                    const fskit::FSItemRef& directory,
                                                    const fskit::FSFileName& name);
    /// Replacing a file by a rename takes three steps. linkBeforeReplace() gives the old file a
    /// second name in the orphan directory. After the rename, dropIfStillLinked() removes that name
    /// again when the file has other visible names, which it answers; otherwise the file is an
    /// orphan from then on. After a rename that failed, undoReplace() makes sure that the file has
    /// the name that it was to lose.
    Outcome<void> linkBeforeReplace(const ItemRef& file);
    bool dropIfStillLinked(const ItemRef& file, bool mayHaveOtherNames);
    void undoReplace(const ItemRef& file, const ItemRef& directory, std::string_view name);

    /// Moves a file with a pending unlink, or all those of one directory, to the orphan directory,
    /// so that the name is free or the directory is empty.
    Outcome<void> moveAside(fskit::FSItemID id);
    Outcome<void> moveAsideChildren(fskit::FSItemID directory);
    /// Moves every file with a pending unlink to the orphan directory, as far as there is room.
    /// Answers the error of the first deferred removal that failed since the last call, if any.
    Outcome<void> persistOrphans();
    /// The same for files whose unlink has been pending for longer than a second.
    void persistExpired();

    /// Removes the file, after the kernel has let go of its item.
    void release(const ItemRef& file);
    /// Removes all of them, and the orphan directory: for unmounting.
    Outcome<void> releaseAll();

  private:
    using Clock = std::chrono::steady_clock;
    /// One deferred removal: where the file's name is now, and since when it is pending.
    struct Removal {
        /// Keeps the item until the file is removed.
        ItemRef item;
        ItemRef directory; // of the present name
        fskit::FSItemID directoryID = fskit::FSItemIDInvalid;
        std::string name;
        Clock::time_point since = Clock::now();
        bool orphaned = false;
        bool busy = false;    // one thread works on it without holding the lock
        bool isNamed = false; // a rename is about to take the name that users see; under lock_
        // Set when a replacement failed and left the file without its own name: it goes back
        // there instead of being removed.
        ItemRef homeDirectory{};
        std::string home{};
    };

    void release(fskit::FSItemID id);
    /// A rename has taken the name of a file that linkBeforeReplace() prepared for it.
    void loseName(fskit::FSItemID id);
    /// Whether the file has more names than the one that is to go, its DOS name not counted.
    Outcome<bool> hasOtherNames(const ItemRef& file, bool mayHaveOtherNames);
    /// Renames the file into the orphan directory, which frees its old name.
    Outcome<void> moveToOrphanDirectory(Removal& removal, fskit::FSItemID id);
    /// Gives a file its own name back after a failed replacement.
    Outcome<void> moveHome(const Removal& removal);
    /// Marks the removal busy and calls `work(removal)` without the lock. Erases the entry when
    /// that answers true. Does nothing when there is no such removal.
    template<typename Work>
    void withExclusive(fskit::FSItemID id, Work&& work);
    /// Marks a removal busy, after waiting for whoever works on it. Null when there is none any
    /// more.
    Removal* begin(fskit::FSItemID id);
    /// The reverse; with `done` the entry goes. Wakes those that wait.
    void end(fskit::FSItemID id, bool done);
    /// Enters a removal, in place of an earlier one of the same record.
    void put(fskit::FSItemID id, Removal removal);
    /// Removes the file, or gives it its own name back. A failure is noted.
    void finish(const Removal& removal);
    /// Logs the failure of a removal whose caller was answered, and keeps the first for
    /// persistOrphans().
    void noteFailure(const fskit::Error& error, const std::string& name);
    /// Moves the files that `wanted(removal)` chooses to the orphan directory. Of several errors it
    /// answers one that is not ENOSPC, where there is one.
    template<typename Wanted>
    Outcome<void> moveAsideWhere(Wanted&& wanted);
    /// Logs the first of several failures in a row.
    void noteMoveAside(const Outcome<void>& moved);

    /// Called without lock_, as its requests may take long.
    TavelinVolume& volume_;
    OrphanDirectory orphanDirectory_;
    mutable Mutex lock_ TAVELIN_ACQUIRED_AFTER(lock_order::directories)
        TAVELIN_ACQUIRED_BEFORE(lock_order::items);
    ConditionVariable idle_; // signalled when a removal is no longer busy
    /// Of removals_, for isEmpty().
    std::atomic<size_t> count_{0};
    std::unordered_map<fskit::FSItemID, Removal> removals_ TAVELIN_GUARDED_BY(lock_);
    /// Of the first deferred removal that failed since the last synchronise.
    std::optional<fskit::Error> failure_ TAVELIN_GUARDED_BY(lock_);
    bool moveAsideFails_ TAVELIN_GUARDED_BY(lock_) = false; // and has been logged
};

} // namespace tavelin
