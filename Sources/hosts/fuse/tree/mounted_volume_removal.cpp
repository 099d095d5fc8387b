// Names that go: removing, renaming and replacing.
#include "fskit/api/error.hpp"
#include "hosts/fuse/tree/mounted_volume.hpp"
#include "platform/error_numbers.hpp"

namespace tavelin::fusehost {

using fskit::fs_errorForPOSIXError;

// The names that users see of an item that was found by its short alias: where the one goes, so
// does the other. None for any other name.
Outcome<MountedVolume::Names> MountedVolume::longNamesOf(const Node& directory, const Found& found,
                                                         std::string_view name) {
    if (found.attributes.linkCount() <= 1 || !mayBeDosName(name)) {
        return Names();
    }
    const Outcome<std::vector<DirectoryEntry>> entries = volume_.list(directory.item, false);
    if (!entries) {
        return entries.error();
    }
    Names names;
    for (const DirectoryEntry& entry : *entries) {
        if (entry.itemID == found.attributes.fileID()) {
            if (entry.name == name) {
                return Names(); // it looks like an alias and is none
            }
            names.push_back(entry.name);
        }
    }
    return names;
}

void MountedVolume::noteLostName(Node& directory, const Found& lost, std::string_view name,
                                 const Names& behind) {
    noteLostName(directory, lost.attributes.fileID(), name);
    for (const std::string& longName : behind) {
        const Outcome<Found> present = existing(directory, longName);
        if (!present || !(present->item == lost.item)) {
            noteLostName(directory, lost.attributes.fileID(), longName);
            staleNames_.add(nodes_.numberOf(directory), longName);
        }
    }
}

Outcome<void> MountedVolume::removeFile(Node& directory, std::string_view name) {
    return remove(directory, name, [&](const Found& old, Node* node) {
        return node != nullptr && !node->isDirectory()
                   ? removed_.remove(*node, directory, name)
                   : volume_.remove(old.item, directory.item, name);
    });
}

Outcome<void> MountedVolume::removeDirectory(Node& directory, std::string_view name) {
    return remove(directory, name, [&](const Found& old, Node* node) {
        Outcome<void> removed = volume_.remove(old.item, directory.item, name);
        if (!removed && isCode(removed.error(), kENOTEMPTY) && node != nullptr) {
            Outcome<void> freed = removed_.moveAsideChildren(*node);
            removed = freed ? volume_.remove(old.item, directory.item, name) : std::move(freed);
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
    const Outcome<Names> behind = longNamesOf(directory, *old, name);
    if (!behind) {
        return behind.error();
    }
    Outcome<void> removed = remove(*old, nodes_.find(old->item));
    if (removed) {
        noteLostName(directory, *old, name, *behind);
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
    if (old != nullptr && removed_.contains(old->attributes.fileID())) {
        if (Outcome<void> freed = removed_.moveAside(old->attributes.fileID()); !freed) {
            return freed;
        }
        old = nullptr;
    }
    if (old != nullptr && !mayReplace) {
        return fs_errorForPOSIXError(kEEXIST);
    }
    const Outcome<Names> behindMoved = longNamesOf(fromDirectory, *moved, from);
    const Outcome<Names> behindOld = old != nullptr ? longNamesOf(toDirectory, *old, to) : Names();
    if (!behindMoved || !behindOld) {
        return behindMoved ? behindOld.error() : behindMoved.error();
    }
    const Renaming renaming{fromDirectory, from, moved->item, toDirectory, to};
    Outcome<void> done =
        old && !(old->item == moved->item) ? replace(renaming, *old) : rename(renaming, ItemRef());
    if (done) {
        noteLostName(fromDirectory, *moved, from, *behindMoved);
        if (old != nullptr) {
            noteLostName(toDirectory, *old, to, *behindOld);
        }
        noteNewName(toDirectory);
        return done;
    }
    return missingIfStale(done.error());
}

Outcome<void> MountedVolume::rename(const Renaming& renaming, const ItemRef& over) {
    return volume_.rename(renaming.item, renaming.fromDirectory.item, renaming.from,
                          renaming.toDirectory.item, renaming.to, over);
}

Outcome<void> MountedVolume::replace(const Renaming& renaming, const Found& old) {
    Node* node = nodes_.find(old.item);
    if (node == nullptr || node->isDirectory()) {
        if (node != nullptr) {
            if (Outcome<void> freed = removed_.moveAsideChildren(*node); !freed) {
                return freed;
            }
        }
        Outcome<void> done = rename(renaming, old.item);
        if (!done && node != nullptr) {
            const Outcome<fskit::FSItemAttributes> left = volume_.attributes(node->item);
            if (!left && isCode(left.error(), kESTALE)) {
                // Too late for the empty directory: it is no more, which the kernel does not
                // expect of a rename that failed.
                staleNames_.add(nodes_.numberOf(renaming.toDirectory), renaming.to);
            }
        }
        return done;
    }
    // Somebody may have the old file open: a second, parked name keeps it when this one is taken.
    // It has both until then, so that at no time, not even after a crash, the name is missing.
    if (Outcome<void> kept = removed_.linkBeforeReplace(*node); !kept) {
        return kept;
    }
    Outcome<void> done = rename(renaming, old.item);
    if (done) {
        removed_.dropIfStillLinked(*node);
    } else {
        removed_.undoReplace(*node, renaming.toDirectory, renaming.to);
    }
    return done;
}

} // namespace tavelin::fusehost
