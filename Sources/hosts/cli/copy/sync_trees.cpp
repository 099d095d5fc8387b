#include "hosts/cli/copy/sync_trees.hpp"

#include "hosts/cli/copy/host_directory.hpp"
#include "hosts/cli/copy/host_streams.hpp"
#include "hosts/cli/text.hpp"
#include "hosts/cli/tree_visit.hpp"
#include "hosts/cli/volume_removal.hpp"
#include "platform/error_numbers.hpp"
#include "platform/utf8.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>

namespace tavelin::cli {
namespace {

using fskit::FSItemType;

FSItemType typeOfMode(mode_t mode) {
    return S_ISREG(mode)   ? FSItemType::file
           : S_ISDIR(mode) ? FSItemType::directory
           : S_ISLNK(mode) ? FSItemType::symlink
                           : FSItemType::unknown;
}

struct ::stat statusAt(int directory, const std::string& name, const std::string& path) {
    struct ::stat status {};
    if (fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        throwHostError(path);
    }
    return status;
}

std::array<std::timespec, 2> onlyModified(std::timespec time) {
    return {std::timespec{.tv_sec = 0, .tv_nsec = UTIME_OMIT}, time};
}

/// Whether the process still runs, as far as can be told.
bool isAlive(pid_t process) {
    return kill(process, 0) == 0 || errno != ESRCH;
}

} // namespace

// ---- HostTree ----------------------------------------------------------------------------------

SyncListing HostTree::list(const Directory& directory) {
    SyncListing result;
    for (const std::string& name : namesIn(directory.descriptor.get(), directory.path)) {
        if (partialNameProcess(name)) {
            result.partials.push_back(name);
            continue;
        }
        const struct ::stat status =
            statusAt(directory.descriptor.get(), name, joined(directory.path, name));
        // The image is no part of the tree, on neither side.
        result.entries.emplace(name,
                               SyncEntry{.type = run_.isImage(status) ? FSItemType::unknown
                                                                      : typeOfMode(status.st_mode),
                                         .size = static_cast<std::uint64_t>(status.st_size),
                                         .modified = status.st_mtim,
                                         .number = status.st_ino});
    }
    return result;
}

HostTree::Directory HostTree::enter(const Directory& directory, const std::string& name) {
    const std::string path = joined(directory.path, name);
    FileDescriptor opened(openat(directory.descriptor.get(), name.c_str(),
                                 O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!opened) {
        throwHostError(path);
    }
    return {std::move(opened), path};
}

HostTree::Directory HostTree::make(const Directory& directory, const std::string& name) {
    const std::string path = joined(directory.path, name);
    if (!staysInside(name)) {
        throw ItemFailure(escaped(path) + ": left out, its name would lead out of the target");
    }
    if (mkdirat(directory.descriptor.get(), name.c_str(), 0777) != 0) {
        throwHostError(path);
    }
    return enter(directory, name);
}

std::optional<std::uint64_t> HostTree::find(const Directory& directory, const std::string& name) {
    struct ::stat status {};
    if (fstatat(directory.descriptor.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return std::nullopt; // copying tells any other reason than that there is none
    }
    return status.st_ino;
}

SyncStreams HostTree::streams(const Directory& directory, const std::string& name) {
    const std::string path = joined(directory.path, name);
    const FileDescriptor file(openat(directory.descriptor.get(), name.c_str(),
                                     O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file) {
        throwHostError(path);
    }
    SyncStreams result;
    for (const HostStream& stream : readHostStreams(file.get(), path)) {
        result.emplace(stream.name, stream.value.size());
    }
    return result;
}

SyncStreams HostTree::streams(const Directory& directory) {
    return streams(directory, ".");
}

void HostTree::removeStream(const Directory& directory, const std::string& stream) {
    removeHostStream(directory.descriptor.get(), stream, directory.path);
}

std::string HostTree::linkTarget(const Directory& directory, const std::string& name) {
    std::string target(1 << 16, '\0');
    const ssize_t length =
        readlinkat(directory.descriptor.get(), name.c_str(), target.data(), target.size());
    if (length < 0) {
        throwHostError(joined(directory.path, name));
    }
    target.resize(static_cast<std::size_t>(length));
    return target;
}

void HostTree::remove(const Directory& directory, const std::string& name, const SyncEntry&) {
    removeHostTree(run_, directory.descriptor.get(), name, joined(directory.path, name));
}

void HostTree::setModified(const Directory& directory, const std::string& name,
                           std::timespec time) {
    if (utimensat(directory.descriptor.get(), name.c_str(), onlyModified(time).data(),
                  AT_SYMLINK_NOFOLLOW) != 0) {
        throwHostError(joined(directory.path, name));
    }
}

void HostTree::setModified(const Directory& directory, std::timespec time) {
    if (futimens(directory.descriptor.get(), onlyModified(time).data()) != 0) {
        throwHostError(directory.path);
    }
}

void HostTree::removePartial(const Directory& directory, const std::string& name) {
    const auto process = partialNameProcess(name);
    // Another run may be copying into the same directory.
    if (process && !isAlive(*process) &&
        unlinkat(directory.descriptor.get(), name.c_str(), 0) != 0) {
        throwHostError(joined(directory.path, name));
    }
}

// ---- VolumeTree --------------------------------------------------------------------------------

SyncListing VolumeTree::list(const Directory& directory) {
    SyncListing result;
    forEachEntry(volume_, directory.item, directory.path, [&](const DirectoryEntry& entry) {
        count_.add();
        if (partialNameProcess(entry.name)) {
            result.partials.push_back(entry.name);
            return;
        }
        SyncEntry& there = result.entries[entry.name];
        there = {.type = entry.type, .size = 0, .modified = {}, .number = entry.itemID};
        if (entry.attributes) {
            there.size = entry.attributes->size();
            there.modified = entry.attributes->modifyTime();
        }
    });
    count_.clear();
    return result;
}

VolumeTree::Directory VolumeTree::enter(const Directory& directory, const std::string& name) {
    Found child = found(directory, name);
    const std::string path = joined(directory.path, name);
    if (!entered_.insert(child.attributes.fileID()).second) {
        throwItemError(path, kELOOP);
    }
    return {std::move(child.item), path};
}

VolumeTree::Directory VolumeTree::make(const Directory& directory, const std::string& name) {
    const std::string path = joined(directory.path, name);
    if (!isUTF8(name)) {
        throw ItemFailure(escaped(path) + ": the name is not UTF-8: rename it first");
    }
    return {ofItem(volume_.create(directory.item, name, FSItemType::directory), path).item, path};
}

std::optional<std::uint64_t> VolumeTree::find(const Directory& directory, const std::string& name) {
    const auto there = volume_.lookup(directory.item, name);
    return there ? std::optional(there->attributes.fileID()) : std::nullopt;
}

SyncStreams VolumeTree::streams(const Directory& directory, const std::string& name) {
    return streams({found(directory, name).item, joined(directory.path, name)});
}

SyncStreams VolumeTree::streams(const Directory& directory) {
    SyncStreams result;
    for (const std::string& name : valueOf(volume_.listXattrs(directory.item), directory.path)) {
        result.emplace(name, valueOf(volume_.xattrSize(directory.item, name), directory.path));
    }
    return result;
}

void VolumeTree::removeStream(const Directory& directory, const std::string& stream) {
    ofItem(volume_.removeXattr(directory.item, stream), directory.path);
}

std::string VolumeTree::linkTarget(const Directory& directory, const std::string& name) {
    const Found link = found(directory, name);
    return shownTarget(valueOf(volume_.readSymbolicLink(link.item), joined(directory.path, name)),
                       link.attributes);
}

void VolumeTree::remove(const Directory& directory, const std::string& name,
                        const SyncEntry& entry) {
    const std::string path = joined(directory.path, name);
    const ItemRef item = found(directory, name).item;
    if (entry.type == FSItemType::directory) {
        removeContents(volume_, item, path);
    }
    ofItem(volume_.remove(item, directory.item, name), path);
}

void VolumeTree::setModified(const Directory& directory, const std::string& name,
                             std::timespec time) {
    setModified({found(directory, name).item, joined(directory.path, name)}, time);
}

void VolumeTree::setModified(const Directory& directory, std::timespec time) {
    fskit::FSItemSetAttributesRequest changes;
    changes.setModifyTime(time);
    ofItem(volume_.setAttributes(directory.item, changes), directory.path);
}

void VolumeTree::removePartial(const Directory& directory, const std::string& name) {
    // The image is locked, so no other run is at work on the volume.
    ofItem(volume_.remove(found(directory, name).item, directory.item, name),
           joined(directory.path, name));
}

bool VolumeTree::isKept(const std::string& path) noexcept {
    return strcasecmp(path.c_str(), "/$RECYCLE.BIN") == 0 ||
           strcasecmp(path.c_str(), "/System Volume Information") == 0;
}

Found VolumeTree::found(const Directory& directory, const std::string& name) {
    return valueOf(volume_.lookup(directory.item, name), joined(directory.path, name));
}

} // namespace tavelin::cli
