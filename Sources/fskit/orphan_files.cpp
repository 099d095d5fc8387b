#include "fskit/orphan_files.hpp"

#include "core/driver2/item_identity.hpp"
#include "diagnostics/log.hpp"
#include "fskit/api/error.hpp"
#include "platform/assert.hpp"
#include "platform/error_numbers.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <vector>

namespace tavelin {

namespace {

// How long an unlink stays pending in memory only. A crash within this time brings the name back.
constexpr auto kUnlinkPendingMax = std::chrono::seconds(1);

using fskit::FSFileName;

fskit::FSItemID idOf(const ItemRef& file) {
    return Driver2::itemID(static_cast<const NItem&>(*file.item()).ino);
}

bool isLackOfRoom(const fskit::Error& error) {
    return error.isPOSIX() && error.code() == kENOSPC;
}

char inLowerCase(char c) noexcept {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

} // namespace

bool OrphanFiles::isHidden(std::string_view nameInRoot) {
    // Names of the directory are in ASCII and in lower case.
    if (volume_.ignoresCase()) {
        const std::string hidden = hiddenName();
        return !hidden.empty() && std::ranges::equal(nameInRoot, hidden, {}, inLowerCase);
    }
    return nameInRoot.starts_with(OrphanDirectory::kName) && nameInRoot == hiddenName();
}

bool OrphanFiles::contains(fskit::FSItemID id) const {
    if (isEmpty()) {
        return false;
    }
    const MutexLock held(lock_);
    const auto removal = removals_.find(id);
    return removal != removals_.end() && !removal->second.isNamed;
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
        volume_.renameItem(removal.item.item(), removal.directory.item(), FSFileName(removal.name),
                           FSFileName(name), directory->item(), nullptr));
    if (moved) {
        removal.directory = std::move(*directory);
        // The directory that it was unlinked in may now be removed.
        removal.directoryID = fskit::FSItemIDInvalid;
        removal.name = std::move(name);
        removal.orphaned = true;
    }
    return moved;
}

Outcome<void> OrphanFiles::remove(const ItemRef& file, bool mayHaveOtherNames,
                                  const ItemRef& directory, std::string_view name) {
    // Only when another name remains can the name be unlinked while the file is open.
    const Outcome<bool> hasOthers = hasOtherNames(file, mayHaveOtherNames);
    if (!hasOthers) {
        return hasOthers.error();
    }
    if (*hasOthers) {
        return Outcome<void>::of(
            volume_.removeItem(file.item(), FSFileName(name), directory.item()));
    }
    // The last name. The volume is not changed yet: in most cases the kernel forgets the file a
    // moment later, and only then is it known that nobody has it open.
    put(idOf(file), {file.duplicate(), directory.duplicate(), idOf(directory), std::string(name)});
    return {};
}

Outcome<bool> OrphanFiles::hasOtherNames(const ItemRef& file, bool mayHaveOtherNames) {
    if (!mayHaveOtherNames) {
        return false;
    }
    // The link count includes the DOS name of the name that goes, which is unlinked with it.
    const Outcome<size_t> names = volume_.countNames(file.item());
    return names ? Outcome(*names > 1) : names.error();
}

Outcome<fskit::FSRemoveItemResult> OrphanFiles::removeAtOnce(const ItemRef& file,
                                                             bool mayHaveOtherNames,
                                                             const fskit::FSItemRef& directory,
                                                             const FSFileName& name) {
    const Outcome<bool> hasOthers = hasOtherNames(file, mayHaveOtherNames);
    if (!hasOthers) {
        return hasOthers.error();
    }
    if (*hasOthers) {
        return volume_.removeItem(file.item(), name, directory);
    }
    Outcome<ItemRef> orphanage = orphanDirectory_.open();
    if (!orphanage) {
        return orphanage.error();
    }
    std::string orphan = OrphanDirectory::nameOf(idOf(file));
    auto moved = volume_.renameItem(file.item(), directory, name, FSFileName(orphan),
                                    orphanage->item(), nullptr);
    if (!moved) {
        return moved.error();
    }
    Removal removal{file.duplicate(), std::move(*orphanage), fskit::FSItemIDInvalid,
                    std::move(orphan)};
    removal.orphaned = true;
    put(idOf(file), std::move(removal));
    if (moved->renamedItemAttributes.validAttributes() != 0) { // else it could not be read
        moved->renamedItemAttributes.setLinkCount(0);
    }
    return fskit::FSRemoveItemResult{moved->renamedItemAttributes, moved->sourceDirectoryAttributes,
                                     moved->freeSpace};
}

Outcome<void> OrphanFiles::linkBeforeReplace(const ItemRef& file) {
    Outcome<ItemRef> directory = orphanDirectory_.open();
    if (!directory) {
        return directory.error();
    }
    std::string name = OrphanDirectory::nameOf(idOf(file));
    // A link and not a move, so that the target keeps its name until the rename replaces it.
    Outcome<void> named =
        Outcome<void>::of(volume_.linkInternal(file.item(), FSFileName(name), directory->item()));
    if (named) {
        Removal removal{file.duplicate(), std::move(*directory), fskit::FSItemIDInvalid,
                        std::move(name)};
        removal.orphaned = true;
        removal.isNamed = true;
        put(idOf(file), std::move(removal));
    }
    return named;
}

bool OrphanFiles::dropIfStillLinked(const ItemRef& file, bool mayHaveOtherNames) {
    // Where the count cannot be read, the file stays in the table. Its other names are then not
    // shown until the kernel forgets the file.
    const Outcome<bool> hasOthers = hasOtherNames(file, mayHaveOtherNames);
    if (hasOthers && *hasOthers) {
        // Only one of its names was replaced: it is no orphan, and needs no name for that.
        release(idOf(file));
        return true;
    }
    loseName(idOf(file));
    return false;
}

void OrphanFiles::loseName(fskit::FSItemID id) {
    const MutexLock held(lock_);
    if (const auto removal = removals_.find(id); removal != removals_.end()) {
        removal->second.isNamed = false;
    }
}

void OrphanFiles::undoReplace(const ItemRef& file, const ItemRef& directory,
                              std::string_view name) {
    withExclusive(idOf(file), [&](Removal& removal) {
        removal.homeDirectory = directory.duplicate();
        removal.home = name;
        // A failure is dropped here: finish() tries again when the file is released.
        const bool isHome = static_cast<bool>(moveHome(removal));
        if (!isHome) {
            loseName(idOf(file));
        }
        return isHome;
    });
}

Outcome<void> OrphanFiles::moveHome(const Removal& removal) {
    // The rename may have failed before or after it took the name away, so the volume is asked what
    // stands there now.
    auto present = volume_.lookupItem(FSFileName(removal.home), removal.homeDirectory.item());
    if (!present) {
        if (!(present.error() == fskit::fs_errorForPOSIXError(kENOENT))) {
            return present.error();
        }
        // The failed rename took the name away.
        return Outcome<void>::of(volume_.renameItem(
            removal.item.item(), removal.directory.item(), FSFileName(removal.name),
            FSFileName(removal.home), removal.homeDirectory.item(), nullptr));
    }
    const ItemRef owner(volume_, std::move(present->foundItem));
    // Either the file still has its own name and loses the one in the orphan directory, or another
    // file has taken the name since, and the user's file must not be lost for it.
    return owner == removal.item
               ? Outcome<void>::of(volume_.removeItem(removal.item.item(), FSFileName(removal.name),
                                                      removal.directory.item()))
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

Outcome<void> OrphanFiles::moveAsideChildren(fskit::FSItemID directory) {
    return moveAsideWhere([&](const Removal& removal) { return removal.directoryID == directory; });
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
            : Outcome<void>::of(volume_.removeItem(removal.item.item(), FSFileName(removal.name),
                                                   removal.directory.item()));
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

void OrphanFiles::release(const ItemRef& file) {
    if (isEmpty()) {
        return;
    }
    {
        // The record may belong to another unlinked file by now, which its number alone would
        // release. So the items are compared, which carry the sequence number.
        const MutexLock held(lock_);
        const auto removal = removals_.find(idOf(file));
        if (removal == removals_.end() || !(removal->second.item == file)) {
            return;
        }
    }
    release(idOf(file));
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

} // namespace tavelin
