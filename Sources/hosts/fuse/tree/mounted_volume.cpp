#include "hosts/fuse/tree/mounted_volume.hpp"

#include "core/driver2/item_identity.hpp"
#include "fskit/api/error.hpp"
#include "platform/error_numbers.hpp"

#include <ctime>
#include <utility>

namespace tavelin::fusehost {

using fskit::fs_errorForPOSIXError;

namespace {

// As exactly as volumes keep times.
bool isBefore(const timespec& time, const timespec& other) {
    constexpr long kStep = 100; // nanoseconds
    return std::pair(time.tv_sec, time.tv_nsec / kStep) <
           std::pair(other.tv_sec, other.tv_nsec / kStep);
}

} // namespace

uint64_t MountedVolume::inoOf(const Found& found) noexcept {
    return Driver2::ino(found.attributes.fileID());
}

bool MountedVolume::isCode(const fskit::Error& error, int32_t code) noexcept {
    return error.isPOSIX() && error.code() == code;
}

MountedVolume::MountedVolume(VolumeClient& volume)
    : volume_(volume),
      nodes_(volume.withAttributes(volume.root().duplicate()).get()),
      removed_(volume) {}

bool MountedVolume::isPrivate(const Node& directory, std::string_view name) noexcept {
    return &directory == &nodes_.root() && name == OrphanFiles::kOrphanDirectory;
}

Outcome<std::optional<Found>> MountedVolume::find(const Node& directory, std::string_view name) {
    if (directory.gone || isPrivate(directory, name)) {
        return std::optional<Found>();
    }
    return volume_.find(directory.item, name);
}

Entry MountedVolume::acquire(Found found) {
    amendLink(found.item, found.attributes);
    const fskit::FSItemAttributes attributes = found.attributes;
    return {&nodes_.acquire(std::move(found)), attributes};
}

Outcome<Entry> MountedVolume::entryOf(Outcome<ItemRef> item) {
    Outcome<Found> found = volume_.withAttributes(std::move(item));
    if (!found) {
        return found.error();
    }
    return acquire(std::move(*found));
}

Outcome<std::optional<Entry>> MountedVolume::lookup(const Node& directory, std::string_view name) {
    Outcome<std::optional<Found>> child = find(directory, name);
    if (!child) {
        return child.error();
    }
    if (!*child || removed_.contains(inoOf(**child))) {
        return std::optional<Entry>();
    }
    return std::optional(acquire(std::move(**child)));
}

void MountedVolume::forget(uint64_t number, uint64_t counts) {
    // The record of a node that is gone may be another's by now, removed and open in its turn.
    if (const std::unique_ptr<Node> node = nodes_.forget(number, counts); node && !node->gone) {
        removed_.release(node->ino);
    }
}

Outcome<Found> MountedVolume::existing(const Node& directory, std::string_view name) {
    Outcome<std::optional<Found>> found = find(directory, name);
    if (!found) {
        return found.error();
    }
    if (!*found || removed_.contains(inoOf(**found))) {
        return fs_errorForPOSIXError(kENOENT);
    }
    return std::move(**found);
}

template<typename Make>
Outcome<ItemRef> MountedVolume::retryAfterFreeingName(const Node& directory, std::string_view name,
                                                      Make&& make) {
    if (directory.gone) {
        return fs_errorForPOSIXError(kENOENT);
    }
    if (isPrivate(directory, name)) {
        return fs_errorForPOSIXError(kEPERM);
    }
    Outcome<ItemRef> made = make();
    if (made || !isCode(made.error(), kEEXIST) || removed_.isEmpty()) {
        return made;
    }
    const Outcome<std::optional<Found>> old = find(directory, name);
    if (!old || (*old && !removed_.contains(inoOf(**old)))) {
        return made;
    }
    if (*old) { // else it has just been parked, by another thread
        if (const Outcome<void> freed = removed_.moveAside(inoOf(**old)); !freed) {
            return freed.error();
        }
    }
    return make();
}

Outcome<Entry> MountedVolume::create(Node& directory, std::string_view name,
                                     fskit::FSItemType type) {
    Outcome<ItemRef> made = retryAfterFreeingName(
        directory, name, [&] { return volume_.create(directory.item, name, type); });
    if (made) {
        noteNewName(directory);
    }
    return entryOf(std::move(made));
}

Outcome<Entry> MountedVolume::createLink(Node& directory, std::string_view name,
                                         std::string_view target) {
    Outcome<ItemRef> made = retryAfterFreeingName(
        directory, name, [&] { return volume_.createSymbolicLink(directory.item, name, target); });
    if (made) {
        noteNewName(directory);
    }
    return entryOf(std::move(made));
}

// What only this host knows of an item.
Outcome<fskit::FSItemAttributes> MountedVolume::adjusted(const Node& node,
                                                         Outcome<fskit::FSItemAttributes> found) {
    if (found) {
        amendLink(node.item, *found);
        if (removed_.contains(node.ino)) {
            found->setLinkCount(0);
        }
    }
    return found;
}

// Volumes count the characters of a link's target, the kernel its bytes.
void MountedVolume::amendLink(const ItemRef& item, fskit::FSItemAttributes& attributes) {
    if (attributes.type() == fskit::FSItemType::symlink) {
        if (const Outcome<std::string> target = volume_.readSymbolicLink(item)) {
            attributes.setSize(target->size());
        }
    }
}

Outcome<fskit::FSItemAttributes> MountedVolume::attributes(const Node& node) {
    if (node.gone) {
        fskit::FSItemAttributes rest;
        rest.setType(fskit::FSItemType::directory);
        rest.setMode(Driver2::mode(NTFSItemType::directory));
        rest.setFileID(Driver2::itemID(node.ino));
        return rest;
    }
    return adjusted(node, volume_.attributes(node.item));
}

Outcome<fskit::FSItemAttributes>
MountedVolume::setAttributes(const Node& node, fskit::FSItemSetAttributesRequest& changes) {
    if (node.gone) {
        return fs_errorForPOSIXError(kESTALE);
    }
    timespec start{};
    std::timespec_get(&start, TIME_UTC);
    Outcome<fskit::FSItemAttributes> found = volume_.setAttributes(node.item, changes);
    // A truncation moves the times on. The kernel leaves that to us, and the volume does it unless
    // the size is what it was.
    namespace Bit = fskit::FSItemAttribute;
    if (found && changes.isValid(Bit::size) && !changes.isValid(Bit::modifyTime) &&
        isBefore(found->modifyTime(), start)) {
        fskit::FSItemSetAttributesRequest times;
        times.setModifyTime(start);
        times.setChangeTime(start);
        found = volume_.setAttributes(node.item, times);
    }
    return adjusted(node, std::move(found));
}

Outcome<void> MountedVolume::synchronize() {
    Outcome<void> settled = removed_.persistOrphans();
    Outcome<void> synchronized = volume_.synchronize();
    return settled ? std::move(synchronized) : std::move(settled);
}

Outcome<void> MountedVolume::finish() {
    return volume_.isReadOnly() ? Outcome<void>() : removed_.releaseAll();
}

} // namespace tavelin::fusehost
