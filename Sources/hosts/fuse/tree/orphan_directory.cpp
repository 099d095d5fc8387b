#include "hosts/fuse/tree/orphan_directory.hpp"

#include "diagnostics/log.hpp"
#include "fskit/api/error.hpp"
#include "platform/error_numbers.hpp"

#include <fmt/format.h>

#include <utility>
#include <vector>

namespace tavelin::fusehost {

namespace {

bool isCode(const fskit::Error& error, int32_t code) {
    return error.isPOSIX() && error.code() == code;
}

// The names that the directory may have, in the order in which they are tried.
std::string candidate(int number) {
    return number == 0 ? std::string(OrphanDirectory::kName)
                       : fmt::format("{}-{}", OrphanDirectory::kName, number);
}

} // namespace

std::string OrphanDirectory::nameOf(fskit::FSItemID id) {
    return fmt::format("{:012x}", id);
}

Outcome<Found> OrphanDirectory::make(std::string_view name) {
    fskit::FSItemSetAttributesRequest hidden;
    hidden.setFlags(fskit::kHiddenFlag);
    Outcome<Found> made =
        volume_.create(volume_.root(), name, fskit::FSItemType::directory, hidden);
    if (made) {
        // The mark comes before any orphan is moved in. Without it the next mount would take the
        // directory for a user's, and files that were removed would stay on the volume.
        if (const Outcome<void> marked = volume_.setXattr(made->item, kMarker, {}); !marked) {
            // It is empty. Should removing it fail too, it stays visible, as anybody's.
            (void)volume_.remove(made->item, volume_.root(), name);
            return marked.error();
        }
    }
    return made;
}

Outcome<ItemRef> OrphanDirectory::open() {
    // Held until the directory is made, so that two threads do not make one each.
    const MutexLock held(lock_);
    for (int i = 0; i < kNamesMax && !directory_; ++i) {
        std::string name = candidate(i);
        Outcome<Found> made = make(name);
        if (made) {
            directory_ = std::move(made->item);
            name_ = std::move(name);
        } else if (!isCode(made.error(), kEEXIST)) {
            return made.error();
        }
        // A name that exists is a user's, or that of a former mount whose directory could not be
        // emptied. Neither may be mixed with the orphans of this mount.
    }
    if (!directory_) {
        return fskit::fs_errorForPOSIXError(kEEXIST);
    }
    return directory_.duplicate();
}

std::string OrphanDirectory::hiddenName() {
    const MutexLock held(lock_);
    return name_;
}

Outcome<void> OrphanDirectory::remove() {
    const MutexLock held(lock_);
    if (!directory_) {
        return {};
    }
    // Forgotten before it is removed, so that an open() after this makes a new one. The unmount has
    // begun and nothing is served any more.
    directory_ = ItemRef();
    return removeFrom(volume_.root(), std::exchange(name_, {}));
}

// A directory that is not empty stays: what is left in it is somebody else's.
Outcome<void> OrphanDirectory::removeFrom(const ItemRef& parent, std::string_view name) {
    // Looked up again: the entry may be gone, or have another owner, since the directory was
    // listed.
    const Outcome<Found> found = volume_.lookup(parent, name);
    if (!found) {
        return found.error();
    }
    Outcome<void> removed = Outcome<void>::of(volume_.remove(found->item, parent, name));
    return !removed && isCode(removed.error(), kENOTEMPTY) ? Outcome<void>() : std::move(removed);
}

Outcome<void> OrphanDirectory::empty(const ItemRef& directory, std::string_view name) {
    const Outcome<std::vector<DirectoryEntry>> left = volume_.list(directory, false);
    if (!left) {
        return left.error();
    }
    // One orphan that cannot be removed does not keep the others. The first error is the one to
    // answer.
    Outcome<void> result;
    for (const DirectoryEntry& entry : *left) {
        // An orphan is named after its own record number. A file that a user or another system put
        // here has another name, except by a coincidence that no user produces.
        if (entry.name != nameOf(entry.itemID)) {
            continue;
        }
        if (Outcome<void> removed = removeFrom(directory, entry.name); !removed && result) {
            result = std::move(removed);
        }
    }
    return result ? removeFrom(volume_.root(), name) : std::move(result);
}

void OrphanDirectory::cleanUp() {
    for (int i = 0; i < kNamesMax; ++i) {
        const std::string name = candidate(i);
        const Outcome<Found> found = volume_.lookup(volume_.root(), name);
        if (!found && isCode(found.error(), kENOENT)) {
            continue; // the usual case: the last unmount was clean
        }
        // Without the mark, the name is a user's.
        if (found && !volume_.xattrSize(found->item, kMarker)) {
            continue;
        }
        const Outcome<void> emptied = found ? empty(found->item, name) : found.error();
        if (!emptied) {
            log().error(
                fmt::format("emptying {}: {}", name, emptied.error().localizedDescription()));
        }
    }
}

} // namespace tavelin::fusehost
