// Names that go: removing, renaming and replacing.
#include "fskit/api/error.hpp"
#include "hosts/fuse/tree/mounted_volume.hpp"
#include "platform/assert.hpp"
#include "platform/error_numbers.hpp"

#include <chrono>

namespace tavelin::fusehost {

using fskit::fs_errorForPOSIXError;

// The long names of an item that was found by its DOS name. Both name the same link of the file, so
// unlinking one unlinks the other, and the kernel has to be told of the long one. Empty when the
// name is not a DOS name.
Outcome<MountedVolume::Names> MountedVolume::longNamesOf(const Node& directory,
                                                         const Found& found) {
    const std::string& name = found.name;
    if (found.attributes.linkCount() <= 1 || !mayBeDosName(name)) {
        return Names();
    }
    // Listings leave DOS names out. So a name that the listing shows is none, and those that it
    // shows for the same record are candidates for the long name behind it.
    const Outcome<std::vector<DirectoryEntry>> entries = volume_.list(directory.item, false);
    if (!entries) {
        return entries.error();
    }
    Names names;
    for (const DirectoryEntry& entry : *entries) {
        if (entry.itemID == found.attributes.fileID()) {
            if (entry.name == name) {
                return Names(); // it looks like a DOS name and is none
            }
            names.push_back(entry.name);
        }
    }
    return names;
}

void MountedVolume::noteLostName(Node& directory, const Found& lost, const Names& behind) {
    noteLostName(directory, lost.attributes.fileID(), lost.name);
    for (const std::string& longName : behind) {
        // A file with several hard links has several candidates. Only one of them went, so each is
        // looked up again.
        const Outcome<Found> present = existing(directory, longName);
        if (!present || !(present->item == lost.item)) {
            noteLostName(directory, lost.attributes.fileID(), longName);
            invalidations_.add(directory.number, longName);
        }
    }
}

Outcome<void> MountedVolume::removeFile(Node& directory, std::string_view name) {
    return remove(directory, name, [&](const Found& old, Node* node) {
        if (node == nullptr || node->isDirectory()) {
            return Outcome<void>::of(volume_.remove(old.item, directory.item, name));
        }
        Outcome<void> removed =
            orphans_.remove(node->item, node->linkCount > 1, directory.item, name);
        if (removed && orphans_.contains(node->id)) {
            noteDeferredRemoval(directory);
        }
        return removed;
    });
}

void MountedVolume::noteDeferredRemoval(Node& directory) {
    TAVELIN_ASSERT(directory.isDirectory());
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    directory.directory->nameLostAt =
        std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
}

void MountedVolume::noteRemoval(Node& directory, fskit::FSItemAttributes attributes) {
    attributes.setLinkCount(0);
    const MutexLock held(directory.directory->lock);
    directory.directory->atRemoval = attributes;
}

Outcome<void> MountedVolume::removeDirectory(Node& directory, std::string_view name) {
    return remove(directory, name, [&](const Found& old, Node* node) {
        if (node != nullptr && node->isDirectory()) {
            noteRemoval(*node, old.attributes);
        }
        const auto unlink = [&] {
            return Outcome<void>::of(volume_.remove(old.item, directory.item, name));
        };
        Outcome<void> removed = unlink();
        // The volume may count files with pending unlinks, which the user does not see. They are
        // moved aside only now: most directories are removed without any.
        if (!removed && isCode(removed.error(), kENOTEMPTY) && node != nullptr) {
            Outcome<void> freed = orphans_.moveAsideChildren(node->id);
            removed = freed ? unlink() : std::move(freed);
        }
        return removed;
    });
}

template<typename Remove>
Outcome<void> MountedVolume::remove(Node& directory, std::string_view name, Remove&& remove) {
    const Outcome<Found> old = existing(directory, name);
    if (!old) {
        return old.error();
    }
    const Outcome<Names> behind = longNamesOf(directory, *old);
    if (!behind) {
        return behind.error();
    }
    Outcome<void> removed = remove(*old, nodes_.find(old->item));
    if (removed) {
        noteLostName(directory, *old, *behind);
    }
    return removed;
}

Outcome<void> MountedVolume::rename(Node& fromDirectory, std::string_view from, Node& toDirectory,
                                    std::string_view to, bool mayReplace) {
    if (isPrivate(toDirectory, to)) {
        return fs_errorForPOSIXError(kEPERM);
    }
    const Outcome<Found> moved = existing(fromDirectory, from);
    if (!moved) {
        return moved.error();
    }
    const Outcome<std::optional<Found>> present = find(toDirectory, to);
    if (!present) {
        return present.error();
    }
    const Found* old = *present ? &**present : nullptr;
    // A name whose unlink is pending does not exist for the user: it is no file to replace.
    if (old != nullptr && orphans_.contains(old->attributes.fileID())) {
        if (Outcome<void> freed = orphans_.moveAside(old->attributes.fileID()); !freed) {
            return freed;
        }
        old = nullptr;
    }
    if (old != nullptr && !mayReplace) {
        return fs_errorForPOSIXError(kEEXIST);
    }
    // Asked for before the rename: afterwards the DOS names are gone and lead to nothing.
    const Outcome<Names> behindMoved = longNamesOf(fromDirectory, *moved);
    const Outcome<Names> behindOld = old != nullptr ? longNamesOf(toDirectory, *old) : Names();
    if (!behindMoved || !behindOld) {
        return behindMoved ? behindOld.error() : behindMoved.error();
    }
    const Renaming renaming{fromDirectory, from, moved->item, toDirectory, to};
    // Two names of one file: POSIX lets the rename succeed, and nothing is replaced.
    Outcome<void> done =
        old && !(old->item == moved->item) ? replace(renaming, *old) : rename(renaming, ItemRef());
    if (done) {
        noteLostName(fromDirectory, *moved, *behindMoved);
        if (old != nullptr) {
            noteLostName(toDirectory, *old, *behindOld);
        }
        noteNewName(toDirectory);
        return done;
    }
    return missingIfStale(done.error());
}

Outcome<void> MountedVolume::exchange(Node& oneDirectory, std::string_view one,
                                      Node& otherDirectory, std::string_view other) {
    const Outcome<Found> first = existing(oneDirectory, one);
    const Outcome<Found> second = existing(otherDirectory, other);
    if (!first || !second) {
        return first ? second.error() : first.error();
    }
    const Outcome<Names> behindFirst = longNamesOf(oneDirectory, *first);
    const Outcome<Names> behindSecond = longNamesOf(otherDirectory, *second);
    if (!behindFirst || !behindSecond) {
        return behindFirst ? behindSecond.error() : behindFirst.error();
    }
    Outcome<void> done = volume_.requests().exchange(
        first->item.item(), oneDirectory.item.item(), fskit::FSFileName(one), second->item.item(),
        otherDirectory.item.item(), fskit::FSFileName(other));
    if (!done) {
        return missingIfStale(done.error());
    }
    noteLostName(oneDirectory, *first, *behindFirst);
    noteLostName(otherDirectory, *second, *behindSecond);
    noteNewName(oneDirectory);
    noteNewName(otherDirectory);
    return done;
}

Outcome<void> MountedVolume::rename(const Renaming& renaming, const ItemRef& over) {
    return Outcome<void>::of(volume_.rename(renaming.item, renaming.fromDirectory.item,
                                            renaming.from, renaming.toDirectory.item, renaming.to,
                                            over));
}

Outcome<void> MountedVolume::replace(const Renaming& renaming, const Found& old) {
    Node* node = nodes_.find(old.item);
    if (node == nullptr || node->isDirectory()) {
        if (node != nullptr) {
            noteRemoval(*node, old.attributes);
            if (Outcome<void> freed = orphans_.moveAsideChildren(node->id); !freed) {
                return freed;
            }
        }
        Outcome<void> done = rename(renaming, old.item);
        if (!done && node != nullptr) {
            const Outcome<fskit::FSItemAttributes> left = volume_.attributes(node->item);
            if (!left && isCode(left.error(), kESTALE)) {
                // The volume removed the empty directory before the rename failed. The kernel
                // keeps its dentry after a failed rename, so it is invalidated.
                invalidations_.add(renaming.toDirectory.number, renaming.to);
            }
        }
        return done;
    }
    // A program may have the old file open. A second name in the orphan directory keeps the file
    // when the rename takes the first. The file has both names until then, so there is no moment,
    // not even after a crash, at which the target name is missing.
    if (Outcome<void> kept = orphans_.linkBeforeReplace(node->item); !kept) {
        return kept;
    }
    Outcome<void> done = rename(renaming, old.item);
    if (done) {
        orphans_.dropIfStillLinked(node->item, node->linkCount > 1);
    } else {
        orphans_.undoReplace(node->item, renaming.toDirectory.item, old.name);
    }
    return done;
}

} // namespace tavelin::fusehost
