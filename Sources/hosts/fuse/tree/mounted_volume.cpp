#include "hosts/fuse/tree/mounted_volume.hpp"

#include "fskit/api/error.hpp"
#include "platform/error_numbers.hpp"
#include "platform/utf8.hpp"

#include <algorithm>
#include <ctime>
#include <utility>

namespace tavelin::fusehost {

using fskit::fs_errorForPOSIXError;

namespace {

// How long a name is as NTFS counts: characters beyond the first plane, which take four bytes, are
// two units.
int64_t unitsOf(std::string_view name) {
    return std::ranges::count_if(name, [](char c) { return (c & 0xc0) != 0x80; }) +
           std::ranges::count_if(name, [](char c) { return (c & 0xf8) == 0xf0; });
}

// Compared at the resolution of NTFS times.
bool isBefore(const timespec& time, const timespec& other) {
    constexpr long kStep = 100; // nanoseconds
    return std::pair(time.tv_sec, time.tv_nsec / kStep) <
           std::pair(other.tv_sec, other.tv_nsec / kStep);
}

} // namespace

fskit::Error MountedVolume::missingIfStale(const fskit::Error& error) {
    return isCode(error, kESTALE) ? fs_errorForPOSIXError(kENOENT) : error;
}

bool MountedVolume::isCode(const fskit::Error& error, int32_t code) noexcept {
    return error.isPOSIX() && error.code() == code;
}

MountedVolume::MountedVolume(VolumeClient& volume)
    : volume_(volume), nodes_(volume.rootWithAttributes().get()), orphans_(volume.requests()) {}

bool MountedVolume::isPrivate(const Node& directory, std::string_view name) {
    return &directory == &nodes_.root() && orphans_.isHidden(name);
}

Outcome<std::optional<Found>> MountedVolume::find(const Node& directory, std::string_view name) {
    if (isPrivate(directory, name)) {
        return std::optional<Found>();
    }
    Outcome<std::optional<Found>> found = volume_.find(directory.item, name);
    if (!found && isCode(found.error(), kESTALE)) {
        return std::optional<Found>(); // a directory that was removed has no names
    }
    return found;
}

Entry MountedVolume::acquire(Found found) {
    adjustLink(found.item, found.attributes);
    fskit::FSItemAttributes attributes = found.attributes;
    Node& node = nodes_.acquire(std::move(found));
    adjustTimes(node, attributes);
    return {&node, attributes};
}

Outcome<std::optional<Entry>> MountedVolume::lookup(const Node& directory, std::string_view name) {
    // Bytes that are no text have no such length; the volume refuses them as what they are.
    if (unitsOf(name) > volume_.requests().maximumNameLength() && isUTF8OrSurrogates(name)) {
        return fs_errorForPOSIXError(kENAMETOOLONG); // the volume has no such name, and never will
    }
    Outcome<std::optional<Found>> child = find(directory, name);
    if (!child) {
        return child.error();
    }
    if (!*child || orphans_.contains((*child)->attributes.fileID())) {
        return std::optional<Entry>();
    }
    return std::optional(acquire(std::move(**child)));
}

Outcome<std::optional<Entry>> MountedVolume::lookupHandle(uint64_t number, bool above) {
    // What is kept after its removal, and where it is kept.
    const auto isHidden = [this](const Found& item) {
        return orphans_.contains(item.attributes.fileID()) ||
               orphans_.isOrphanDirectory(item.attributes.fileID()) ||
               orphans_.isOrphanDirectory(item.attributes.parentID());
    };
    Outcome<Found> found =
        number == nodes_.root().number ? volume_.rootWithAttributes() : volume_.itemAt(number);
    if (found && above && !isHidden(*found)) {
        found = volume_.directoryOf(found->item);
    }
    if (!found) {
        return found.error();
    }
    if (isHidden(*found)) {
        return fs_errorForPOSIXError(kESTALE);
    }
    return std::optional(acquire(std::move(*found)));
}

void MountedVolume::forget(uint64_t number, uint64_t counts) {
    if (const std::unique_ptr<Node> forgotten = nodes_.forget(number, counts)) {
        orphans_.release(forgotten->item);
    }
}

Outcome<Found> MountedVolume::existing(const Node& directory, std::string_view name) {
    Outcome<std::optional<Found>> found = find(directory, name);
    if (!found) {
        return found.error();
    }
    if (!*found || orphans_.contains((*found)->attributes.fileID())) {
        return fs_errorForPOSIXError(kENOENT);
    }
    return std::move(**found);
}

template<typename Make>
Outcome<Entry> MountedVolume::make(Node& directory, std::string_view name, Make&& make) {
    if (isPrivate(directory, name)) {
        return fs_errorForPOSIXError(kEPERM);
    }
    Outcome<Found> made = make();
    if (!made && isCode(made.error(), kEEXIST) && !orphans_.isEmpty()) {
        // The name may belong to a file whose unlink is pending. Users do not see that file, so the
        // name has to be free for them.
        const Outcome<std::optional<Found>> old = find(directory, name);
        if (!old || (*old && !orphans_.contains((*old)->attributes.fileID()))) {
            return made.error();
        }
        if (*old) { // else another thread has moved it aside meanwhile
            if (const Outcome<void> freed = orphans_.moveAside((*old)->attributes.fileID());
                !freed) {
                return freed.error();
            }
        }
        made = make();
    }
    if (!made) {
        return missingIfStale(made.error());
    }
    noteNewName(directory);
    return acquire(std::move(*made));
}

Outcome<Entry> MountedVolume::create(Node& directory, std::string_view name, fskit::FSItemType type,
                                     fskit::FSItemSetAttributesRequest attributes) {
    return make(directory, name,
                [&] { return volume_.create(directory.item, name, type, attributes); });
}

Outcome<Entry> MountedVolume::createLink(Node& directory, std::string_view name,
                                         std::string_view target,
                                         const fskit::FSItemSetAttributesRequest& attributes) {
    return make(directory, name, [&] {
        return volume_.createSymbolicLink(directory.item, name, target, attributes);
    });
}

Outcome<Entry> MountedVolume::createHardLink(const Node& file, Node& directory,
                                             std::string_view name) {
    // Its name in the orphan directory, or the one that is about to go, would be what is linked.
    if (orphans_.contains(file.id)) {
        return fs_errorForPOSIXError(kENOENT);
    }
    return make(directory, name, [&]() -> Outcome<Found> {
        const auto linked = volume_.linkInternal(file.item, directory.item, name);
        return linked ? volume_.lookup(directory.item, name) : linked.error();
    });
}

// Corrects what only this host knows: link text sizes, the link count of unlinked open files, and
// the times of directories whose files are unlinked and not yet removed.
Outcome<fskit::FSItemAttributes> MountedVolume::adjusted(const Node& node,
                                                         Outcome<fskit::FSItemAttributes> found) {
    if (found) {
        adjustLink(node.item, *found);
        if (orphans_.contains(node.id)) {
            found->setLinkCount(0);
        }
        adjustTimes(node, *found);
    }
    return found;
}

void MountedVolume::adjustTimes(const Node& node, fskit::FSItemAttributes& attributes) {
    if (const int64_t lost = node.isDirectory() ? node.directory->nameLostAt.load() : 0;
        lost != 0) {
        constexpr int64_t kSecond = 1'000'000'000;
        const timespec time{static_cast<time_t>(lost / kSecond), static_cast<long>(lost % kSecond)};
        if (isBefore(attributes.modifyTime(), time)) {
            attributes.setModifyTime(time);
        }
        if (isBefore(attributes.changeTime(), time)) {
            attributes.setChangeTime(time);
        }
    }
}

// The volume reports a link's size in UTF-16 units; POSIX wants the bytes of its target.
void MountedVolume::adjustLink(const ItemRef& item, fskit::FSItemAttributes& attributes) {
    if (attributes.type() == fskit::FSItemType::symlink) {
        if (const Outcome<std::string> target = volume_.readSymbolicLink(item)) {
            attributes.setSize(target->size());
        }
    }
}

Outcome<fskit::FSItemAttributes> MountedVolume::attributes(const Node& node) {
    Outcome<fskit::FSItemAttributes> found = volume_.attributes(node.item);
    if (!found && node.isDirectory() && isCode(found.error(), kESTALE)) {
        // A directory that was removed while somebody is in it. Its record is gone, a file's is
        // not: those are kept until the kernel forgets them.
        const MutexLock held(node.directory->lock);
        return node.directory->atRemoval ? *node.directory->atRemoval : std::move(found);
    }
    return adjusted(node, std::move(found));
}

Outcome<fskit::FSItemAttributes>
MountedVolume::setAttributes(const Node& node, fskit::FSItemSetAttributesRequest& changes) {
    timespec start{};
    std::timespec_get(&start, TIME_UTC);
    namespace Bit = fskit::FSItemAttribute;
    const bool setsTimes = changes.isValid(Bit::accessTime) || changes.isValid(Bit::modifyTime);
    if ((setsTimes || changes.validAttributes() == 0) && !changes.isValid(Bit::changeTime)) {
        // Setting times is a change, and so is a chown that names nobody, which comes as a request
        // for nothing. The kernel leaves the time of it to the server.
        changes.setChangeTime(start);
    }
    if (node.isDirectory() && changes.isValid(Bit::modifyTime)) {
        // Names whose removal is deferred go first, or their going would move what is set here. A
        // failure is dropped: it does that then, and nothing worse.
        (void)orphans_.moveAsideChildren(node.id);
    }
    Outcome<fskit::FSItemAttributes> found = volume_.setAttributes(node.item, changes);
    // POSIX lets a truncate update the times even when the size does not change. The kernel leaves
    // that to the server, and the volume does it only when the size changes.
    if (found && node.isDirectory() && changes.isValid(Bit::modifyTime)) {
        node.directory->nameLostAt = 0; // what a user sets holds
    }
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
    // Unlinks first, so that the flush makes them durable too.
    Outcome<void> settled = orphans_.persistOrphans();
    Outcome<void> synchronized = volume_.synchronize();
    return settled ? std::move(synchronized) : std::move(settled);
}

Outcome<void> MountedVolume::finish() {
    return volume_.isReadOnly() ? Outcome<void>() : orphans_.releaseAll();
}

Outcome<uint64_t> MountedVolume::trim(const NTFSTrimRange& range,
                                      const std::function<bool()>& goesOn) {
    if (isTrimming_.exchange(true)) {
        return fs_errorForPOSIXError(kEBUSY);
    }
    const struct End {
        std::atomic<bool>& mark;
        ~End() { mark = false; }
    } end{isTrimming_};
    return volume_.requests().trim(range, goesOn);
}

} // namespace tavelin::fusehost
