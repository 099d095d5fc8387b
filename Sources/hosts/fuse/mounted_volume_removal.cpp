// Names that go: removing, renaming and replacing.
#include "fskit/api/error.hpp"
#include "hosts/fuse/mounted_volume.hpp"
#include "platform/error_numbers.hpp"

namespace tavelin::fusehost {

using fskit::fs_errorForPOSIXError;

// The record that `change` frees may belong to another file a moment later, so its node leaves
// first.
template<typename Change>
Outcome<void> MountedVolume::freeing(Node* node, Change&& change) {
    if (node != nullptr) {
        nodes_.detach(*node);
    }
    Outcome<void> changed = change();
    if (!changed && node != nullptr) {
        // Unless it failed when the record was free already.
        const Outcome<fskit::FSItemAttributes> left = volume_.attributes(node->item);
        if (left || !isCode(left.error(), kENOENT)) {
            nodes_.attach(*node);
        }
    }
    return changed;
}

// The names that users see of an item that was found by its short alias: where the one goes, so
// does the other. None for any other name.
Outcome<MountedVolume::Names> MountedVolume::namesBehind(const Node& folder, const Found& found,
                                                         std::string_view name) {
    if (found.attributes.linkCount() <= 1 || !mayBeAlias(name)) {
        return Names();
    }
    const Outcome<std::vector<DirectoryEntry>> entries = volume_.list(folder.item, false);
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

void MountedVolume::noteLostName(Node& folder, const Found& lost, std::string_view name,
                                 const Names& behind) {
    noteLostName(folder, inoOf(lost), name);
    for (const std::string& longName : behind) {
        const Outcome<Found> present = existing(folder, longName);
        if (!present || inoOf(*present) != inoOf(lost)) {
            noteLostName(folder, inoOf(lost), longName);
            staleNames_.add(nodes_.numberOf(folder), longName);
        }
    }
}

Outcome<void> MountedVolume::removeFile(Node& folder, std::string_view name) {
    return remove(folder, name, [&](const Found& old, Node* node) {
        return node != nullptr && !node->isFolder()
                   ? removed_.remove(*node, folder, name)
                   : freeing(node, [&] { return volume_.remove(old.item, folder.item, name); });
    });
}

Outcome<void> MountedVolume::removeFolder(Node& folder, std::string_view name) {
    return remove(folder, name, [&](const Found& old, Node* node) {
        const auto remove = [&] { return volume_.remove(old.item, folder.item, name); };
        Outcome<void> removed = freeing(node, remove);
        if (!removed && isCode(removed.error(), kENOTEMPTY) && node != nullptr) {
            Outcome<void> freed = removed_.freeFolder(*node);
            removed = freed ? freeing(node, remove) : std::move(freed);
        }
        return removed;
    });
}

template<typename Remove>
Outcome<void> MountedVolume::remove(Node& folder, std::string_view name, Remove&& remove) {
    const Outcome<Found> old = existing(folder, name);
    if (!old) {
        return old.error();
    }
    const Outcome<Names> behind = namesBehind(folder, *old, name);
    if (!behind) {
        return behind.error();
    }
    Outcome<void> removed = remove(*old, nodes_.find(inoOf(*old)));
    if (removed) {
        noteLostName(folder, *old, name, *behind);
    }
    return removed;
}

Outcome<void> MountedVolume::rename(Node& fromFolder, std::string_view from, Node& toFolder,
                                    std::string_view to, bool mayReplace) {
    if (isPrivate(toFolder, to) || toFolder.gone) {
        return fs_errorForPOSIXError(toFolder.gone ? kENOENT : kEPERM);
    }
    const Outcome<Found> moved = existing(fromFolder, from);
    if (!moved) {
        return moved.error();
    }
    const Outcome<std::optional<Found>> present = find(toFolder, to);
    if (!present) {
        return present.error();
    }
    const Found* old = *present ? &**present : nullptr;
    if (old != nullptr && removed_.contains(inoOf(*old))) {
        if (Outcome<void> freed = removed_.freeName(inoOf(*old)); !freed) {
            return freed;
        }
        old = nullptr;
    }
    if (old != nullptr && !mayReplace) {
        return fs_errorForPOSIXError(kEEXIST);
    }
    const Outcome<Names> behindMoved = namesBehind(fromFolder, *moved, from);
    const Outcome<Names> behindOld = old != nullptr ? namesBehind(toFolder, *old, to) : Names();
    if (!behindMoved || !behindOld) {
        return behindMoved ? behindOld.error() : behindMoved.error();
    }
    const Renaming renaming{fromFolder, from, moved->item, toFolder, to};
    Outcome<void> done =
        old && inoOf(*old) != inoOf(*moved) ? replace(renaming, *old) : rename(renaming, ItemRef());
    if (done) {
        noteLostName(fromFolder, *moved, from, *behindMoved);
        if (old != nullptr) {
            noteLostName(toFolder, *old, to, *behindOld);
        }
        noteNewName(toFolder);
    }
    return done;
}

Outcome<void> MountedVolume::rename(const Renaming& renaming, const ItemRef& over) {
    return volume_.rename(renaming.item, renaming.fromFolder.item, renaming.from,
                          renaming.toFolder.item, renaming.to, over);
}

Outcome<void> MountedVolume::replace(const Renaming& renaming, const Found& old) {
    Node* node = nodes_.find(inoOf(old));
    if (node == nullptr || node->isFolder()) {
        if (node != nullptr) {
            if (Outcome<void> freed = removed_.freeFolder(*node); !freed) {
                return freed;
            }
        }
        Outcome<void> done = freeing(node, [&] { return rename(renaming, old.item); });
        if (!done && node != nullptr && node->gone) {
            // Too late for the empty folder: it is no more, which the kernel does not expect.
            staleNames_.add(nodes_.numberOf(renaming.toFolder), renaming.to);
        }
        return done;
    }
    // Somebody may have the old file open: a second, parked name keeps it when this one is taken.
    // It has both until then, so that at no time, not even after a crash, the name is missing.
    if (Outcome<void> kept = removed_.keep(*node); !kept) {
        return kept;
    }
    Outcome<void> done = rename(renaming, old.item);
    if (done) {
        removed_.leaveToOtherNames(*node);
    } else {
        removed_.giveBack(*node, renaming.toFolder, renaming.to);
    }
    return done;
}

} // namespace tavelin::fusehost
