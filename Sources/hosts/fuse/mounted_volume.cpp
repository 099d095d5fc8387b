#include "hosts/fuse/mounted_volume.hpp"

#include "core/driver2.hpp"
#include "fskit/api/error.hpp"
#include "platform/error_numbers.hpp"

namespace tavelin::fusehost {

using fskit::fs_errorForPOSIXError;

namespace {

uint64_t inoOf(const Found& found) {
    return Driver2::ino(found.attributes.fileID());
}

bool isCode(const fskit::Error& error, int32_t code) {
    return error.isPOSIX() && error.code() == code;
}

} // namespace

MountedVolume::MountedVolume(VolumeClient& volume)
    : volume_(volume),
      nodes_(volume.withAttributes(volume.root().again()).get()),
      removed_(volume) {}

bool MountedVolume::isPrivate(const Node& folder, std::string_view name) noexcept {
    return &folder == &nodes_.root() && name == RemovedFiles::kParkingFolder;
}

Outcome<std::optional<Found>> MountedVolume::find(const Node& folder, std::string_view name) {
    if (folder.gone || isPrivate(folder, name)) {
        return std::optional<Found>();
    }
    return volume_.find(folder.item, name);
}

Entry MountedVolume::remember(Found found) {
    const fskit::FSItemAttributes attributes = found.attributes;
    return {&nodes_.remember(std::move(found)), attributes};
}

Outcome<Entry> MountedVolume::entryOf(Outcome<ItemRef> item) {
    Outcome<Found> found = volume_.withAttributes(std::move(item));
    if (!found) {
        return found.error();
    }
    return remember(std::move(*found));
}

Outcome<std::optional<Entry>> MountedVolume::lookup(const Node& folder, std::string_view name) {
    Outcome<std::optional<Found>> child = find(folder, name);
    if (!child) {
        return child.error();
    }
    if (!*child || removed_.contains(inoOf(**child))) {
        return std::optional<Entry>();
    }
    return std::optional(remember(std::move(**child)));
}

void MountedVolume::forget(uint64_t number, uint64_t counts) {
    if (const std::unique_ptr<Node> node = nodes_.forget(number, counts)) {
        removed_.release(node->ino);
    }
}

Outcome<Found> MountedVolume::existing(const Node& folder, std::string_view name) {
    Outcome<std::optional<Found>> found = find(folder, name);
    if (!found) {
        return found.error();
    }
    if (!*found || removed_.contains(inoOf(**found))) {
        return fs_errorForPOSIXError(kENOENT);
    }
    return std::move(**found);
}

template<typename Make>
Outcome<ItemRef> MountedVolume::makingRoom(const Node& folder, std::string_view name, Make&& make) {
    if (folder.gone) {
        return fs_errorForPOSIXError(kENOENT);
    }
    if (isPrivate(folder, name)) {
        return fs_errorForPOSIXError(kEPERM);
    }
    Outcome<ItemRef> made = make();
    if (made || !isCode(made.error(), kEEXIST) || removed_.isEmpty()) {
        return made;
    }
    const Outcome<std::optional<Found>> old = find(folder, name);
    if (!old || !*old || !removed_.contains(inoOf(**old))) {
        return made;
    }
    if (const Outcome<void> freed = removed_.freeName(inoOf(**old)); !freed) {
        return freed.error();
    }
    return make();
}

Outcome<Entry> MountedVolume::create(Node& folder, std::string_view name, fskit::FSItemType type) {
    Outcome<ItemRef> made =
        makingRoom(folder, name, [&] { return volume_.create(folder.item, name, type); });
    if (made) {
        noteNewName(folder);
    }
    return entryOf(std::move(made));
}

Outcome<Entry> MountedVolume::createLink(Node& folder, std::string_view name,
                                         std::string_view target) {
    Outcome<ItemRef> made = makingRoom(
        folder, name, [&] { return volume_.createSymbolicLink(folder.item, name, target); });
    if (made) {
        noteNewName(folder);
    }
    return entryOf(std::move(made));
}

// The record that `change` frees may belong to another file a moment later, so its node leaves
// first.
template<typename Change>
Outcome<void> MountedVolume::freeing(Node* node, Change&& change) {
    if (node != nullptr) {
        nodes_.detach(*node);
    }
    Outcome<void> changed = change();
    if (!changed && node != nullptr) {
        nodes_.attach(*node);
    }
    return changed;
}

Outcome<void> MountedVolume::removeFile(Node& folder, std::string_view name) {
    const Outcome<Found> old = existing(folder, name);
    if (!old) {
        return old.error();
    }
    const uint64_t ino = inoOf(*old);
    Node* node = nodes_.find(ino);
    Outcome<void> removed =
        node != nullptr && node->isFile
            ? removed_.remove(*node, folder, name)
            : freeing(node, [&] { return volume_.remove(old->item, folder.item, name); });
    if (removed) {
        noteLostName(folder, ino, name);
    }
    return removed;
}

Outcome<void> MountedVolume::removeFolder(Node& folder, std::string_view name) {
    const Outcome<Found> old = existing(folder, name);
    if (!old) {
        return old.error();
    }
    Node* node = nodes_.find(inoOf(*old));
    const auto remove = [&] { return volume_.remove(old->item, folder.item, name); };
    Outcome<void> removed = freeing(node, remove);
    if (!removed && isCode(removed.error(), kENOTEMPTY) && node != nullptr) {
        Outcome<void> freed = removed_.freeFolder(*node);
        removed = freed ? freeing(node, remove) : std::move(freed);
    }
    if (removed) {
        noteLostName(folder, inoOf(*old), name);
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
    const Renaming renaming{fromFolder, from, moved->item, toFolder, to};
    Outcome<void> done =
        old && inoOf(*old) != inoOf(*moved) ? replace(renaming, *old) : rename(renaming, ItemRef());
    if (done) {
        noteLostName(fromFolder, inoOf(*moved), from);
        if (old != nullptr) {
            noteLostName(toFolder, inoOf(*old), to);
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
    if (node == nullptr || !node->isFile) {
        if (node != nullptr && node->isFolder()) {
            if (Outcome<void> freed = removed_.freeFolder(*node); !freed) {
                return freed;
            }
        }
        return freeing(node, [&] { return rename(renaming, old.item); });
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
        removed_.release(node->ino); // gives up the parked name
    }
    return done;
}

Outcome<fskit::FSItemAttributes> MountedVolume::attributes(Node& node) {
    if (node.gone) {
        fskit::FSItemAttributes rest;
        rest.setType(fskit::FSItemType::directory);
        rest.setMode(Driver2::mode(NTFSItemType::directory));
        rest.setFileID(Driver2::itemID(node.ino));
        return rest;
    }
    Outcome<fskit::FSItemAttributes> attributes = volume_.attributes(node.item);
    if (attributes && removed_.contains(node.ino)) {
        attributes->setLinkCount(0);
    }
    return attributes;
}

Outcome<void> MountedVolume::synchronize() {
    Outcome<void> settled = removed_.settle();
    Outcome<void> synchronized = volume_.synchronize();
    return settled ? std::move(synchronized) : std::move(settled);
}

Outcome<void> MountedVolume::finish() {
    return volume_.isReadOnly() ? Outcome<void>() : removed_.releaseAll();
}

} // namespace tavelin::fusehost
