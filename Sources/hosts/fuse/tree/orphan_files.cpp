#include "hosts/fuse/tree/orphan_files.hpp"

#include "diagnostics/log.hpp"
#include "fskit/api/error.hpp"
#include "platform/assert.hpp"
#include "platform/error_numbers.hpp"

#include <fmt/format.h>

#include <vector>

namespace tavelin::fusehost {

namespace {

// How long an unlink stays pending in memory only. A crash within this time brings the name back.
constexpr auto kUnlinkPendingMax = std::chrono::seconds(1);

bool isLackOfRoom(const fskit::Error& error) {
    return error.isPOSIX() && error.code() == kENOSPC;
}

} // namespace

bool OrphanFiles::contains(fskit::FSItemID id) const {
    if (isEmpty()) {
        return false;
    }
    const MutexLock held(lock_);
    return removals_.contains(id);
}

OrphanFiles::Removal* OrphanFiles::begin(fskit::FSItemID id) {
    const MutexLock held(lock_);
    auto found = removals_.find(id);
    // Searched anew after each wait: the thread that worked on it may have erased it.
    while (found != removals_.end() && found->second.busy) {
        idle_.wait(lock_);
        found = removals_.find(id);
    }
    if (found == removals_.end()) {
        return nullptr;
    }
    // The reference stays valid without the lock: rehashing an unordered_map moves no elements, and
    // only the thread that marked an entry busy erases it.
    found->second.busy = true;
    return &found->second;
}

void OrphanFiles::end(fskit::FSItemID id, bool done) {
    {
        const MutexLock held(lock_);
        const auto removal = removals_.find(id);
        TAVELIN_ASSERT(removal != removals_.end() && removal->second.busy);
        removal->second.busy = false;
        if (done) {
            removals_.erase(removal);
            count_ = removals_.size();
        }
    }
    idle_.notifyAll();
}

template<typename Work>
void OrphanFiles::withExclusive(fskit::FSItemID id, Work&& work) {
    // Null when the work is done already by another thread: then there is nothing to do.
    Removal* const removal = begin(id);
    if (removal == nullptr) {
        return;
    }
    bool done = false;
    try {
        done = work(*removal);
    } catch (...) {
        end(id, false); // else the threads that wait for this removal would wait forever
        throw;
    }
    end(id, done);
}

void OrphanFiles::put(fskit::FSItemID id, Removal removal) {
    const MutexLock held(lock_);
    removals_.insert_or_assign(id, std::move(removal));
    count_ = removals_.size();
}

Outcome<void> OrphanFiles::moveToOrphanDirectory(Removal& removal, fskit::FSItemID id) {
    Outcome<ItemRef> directory = orphanDirectory_.open();
    if (!directory) {
        return directory.error();
    }
    TAVELIN_ASSERT(!removal.orphaned);
    std::string name = OrphanDirectory::nameOf(id);
    // Nothing is replaced: the name is made of the record number, and the record is in use.
    Outcome<void> moved = Outcome<void>::of(
        volume_.rename(removal.item, removal.directory, removal.name, *directory, name, ItemRef()));
    if (moved) {
        removal.directory = std::move(*directory);
        // The file no longer counts against the directory that it was unlinked in, which may now be
        // removed.
        removal.directoryID = fskit::FSItemIDInvalid;
        removal.name = std::move(name);
        removal.orphaned = true;
    }
    return moved;
}

Outcome<void> OrphanFiles::remove(const Node& file, const Node& directory, std::string_view name) {
    // The link count includes the DOS name of this very name, which is unlinked with it. Only when
    // another name remains can the name be unlinked while the file is open.
    if (file.linkCount > 1) {
        const Outcome<size_t> names = volume_.countNames(file.item);
        if (!names) {
            return names.error();
        }
        if (*names > 1) {
            return Outcome<void>::of(volume_.remove(file.item, directory.item, name));
        }
    }
    // The last name. The volume is not changed yet: in most cases the kernel forgets the file a
    // moment later, and only then is it known that nobody has it open.
    put(file.id,
        {file.item.duplicate(), directory.item.duplicate(), directory.id, std::string(name)});
    return {};
}

Outcome<void> OrphanFiles::linkBeforeReplace(const Node& file) {
    Outcome<ItemRef> directory = orphanDirectory_.open();
    if (!directory) {
        return directory.error();
    }
    std::string name = OrphanDirectory::nameOf(file.id);
    // A link and not a move, so that the target keeps its name until the rename replaces it.
    Outcome<void> named = Outcome<void>::of(volume_.linkInternal(file.item, *directory, name));
    if (named) {
        Removal removal{file.item.duplicate(), std::move(*directory), fskit::FSItemIDInvalid,
                        std::move(name)};
        removal.orphaned = true;
        put(file.id, std::move(removal));
    }
    return named;
}

void OrphanFiles::dropIfStillLinked(const Node& file) {
    if (file.linkCount <= 1) {
        return;
    }
    // Where the count cannot be read, the file stays in the table. Its other names are then not
    // shown until the kernel forgets the file.
    const Outcome<size_t> names = volume_.countNames(file.item);
    // The file is not an orphan: only one of its names was replaced. Its name in the orphan
    // directory is removed, and the others stay visible.
    if (names && *names > 1) {
        release(file.id);
    }
}

void OrphanFiles::undoReplace(const Node& file, const Node& directory, std::string_view name) {
    withExclusive(file.id, [&](Removal& removal) {
        removal.homeDirectory = directory.item.duplicate();
        removal.home = name;
        // A failure is dropped here: finish() tries again when the file is released.
        return static_cast<bool>(moveHome(removal));
    });
}

Outcome<void> OrphanFiles::moveHome(const Removal& removal) {
    // The rename may have failed before or after it took the name away, so the volume is asked what
    // stands there now.
    const Outcome<std::optional<Found>> present = volume_.find(removal.homeDirectory, removal.home);
    if (!present) {
        return present.error();
    }
    if (!*present) { // the failed rename took the name away
        return Outcome<void>::of(volume_.rename(removal.item, removal.directory, removal.name,
                                                removal.homeDirectory, removal.home, ItemRef()));
    }
    // Either the file still has its own name and loses the one in the orphan directory, or another
    // file has taken the name since, and the user's file must not be lost for it.
    return (*present)->item == removal.item
               ? Outcome<void>::of(volume_.remove(removal.item, removal.directory, removal.name))
               : Outcome<void>(fskit::fs_errorForPOSIXError(kEEXIST));
}

Outcome<void> OrphanFiles::moveAside(fskit::FSItemID id) {
    Outcome<void> result;
    withExclusive(id, [&](Removal& removal) {
        if (!removal.orphaned) {
            result = moveToOrphanDirectory(removal, id);
        }
        return false;
    });
    return result;
}

template<typename Wanted>
Outcome<void> OrphanFiles::moveAsideWhere(Wanted&& wanted) {
    std::vector<uint64_t> chosen;
    if (!isEmpty()) {
        const MutexLock held(lock_);
        for (const auto& [id, removal] : removals_) {
            // A busy one is chosen too, so that moveAside() waits for it: whoever works on it moves
            // or removes the file, and the caller relies on its name being free afterwards.
            if (removal.busy || (!removal.orphaned && wanted(removal))) {
                chosen.push_back(id);
            }
        }
    }
    // One failure does not keep the others from being moved. ENOSPC gives way to any other error:
    // callers may ignore a lack of room, and only that.
    Outcome<void> result;
    for (const fskit::FSItemID id : chosen) {
        if (Outcome<void> moved = moveAside(id);
            !moved && (result || isLackOfRoom(result.error()))) {
            result = std::move(moved);
        }
    }
    return result;
}

Outcome<void> OrphanFiles::moveAsideChildren(const Node& directory) {
    return moveAsideWhere(
        [&](const Removal& removal) { return removal.directoryID == directory.id; });
}

Outcome<void> OrphanFiles::persistOrphans() {
    Outcome<void> result = moveAsideWhere([](const Removal&) { return true; });
    noteMoveAside(result);
    if (!result && isLackOfRoom(result.error())) {
        // fsync promises data, and the data has its room. The unlink is tried again later.
        result = {};
    }
    const MutexLock held(lock_);
    if (std::optional<fskit::Error> failure = std::exchange(failure_, std::nullopt);
        failure && result) {
        result = std::move(failure);
    }
    return result;
}

void OrphanFiles::persistExpired() {
    // Called by the maintenance thread. Files that are held open for long are moved aside, so that
    // a crash does not bring their names back.
    const Clock::time_point limit = Clock::now() - kUnlinkPendingMax;
    noteMoveAside(moveAsideWhere([&](const Removal& removal) { return removal.since < limit; }));
}

void OrphanFiles::noteMoveAside(const Outcome<void>& moved) {
    {
        const MutexLock held(lock_);
        const bool failedBefore = std::exchange(moveAsideFails_, !moved);
        // A full volume fails every second. One line in the log says it.
        if (moved || failedBefore) {
            return;
        }
    }
    log().error(fmt::format("a removed file that is still open could not be moved away: {}",
                            moved.error().localizedDescription()));
}

void OrphanFiles::finish(const Removal& removal) {
    const Outcome<void> done =
        removal.homeDirectory
            ? moveHome(removal)
            : Outcome<void>::of(volume_.remove(removal.item, removal.directory, removal.name));
    if (!done) {
        noteFailure(done.error(), removal.name);
    }
}

void OrphanFiles::noteFailure(const fskit::Error& error, const std::string& name) {
    log().error(fmt::format("removing {}: {}", name, error.localizedDescription()));
    const MutexLock held(lock_);
    // Kept for the next synchronise: the unlink itself was answered long ago.
    if (!failure_) {
        failure_ = error;
    }
}

void OrphanFiles::release(const Node& file) {
    if (isEmpty()) {
        return;
    }
    {
        // A removed directory's record may belong to another file by now, one that is unlinked and
        // open in its turn. The record number alone would release that file, so the items are
        // compared, which carry the sequence number.
        const MutexLock held(lock_);
        const auto removal = removals_.find(file.id);
        if (removal == removals_.end() || !(removal->second.item == file.item)) {
            return;
        }
    }
    release(file.id);
}

void OrphanFiles::release(fskit::FSItemID id) {
    withExclusive(id, [&](const Removal& removal) {
        finish(removal);
        return true;
    });
}

Outcome<void> OrphanFiles::releaseAll() {
    // Collected first: release() takes the lock and erases entries.
    std::vector<uint64_t> all;
    {
        const MutexLock held(lock_);
        for (const auto& [id, removal] : removals_) {
            all.push_back(id);
        }
    }
    for (const fskit::FSItemID id : all) {
        release(id);
    }
    // The directory goes last, and only if it is empty: somebody else's file may be in it.
    if (const Outcome<void> removed = orphanDirectory_.remove(); !removed) {
        noteFailure(removed.error(), std::string(OrphanDirectory::kName));
    }
    return persistOrphans();
}

} // namespace tavelin::fusehost
