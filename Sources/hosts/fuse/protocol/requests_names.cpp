// Requests about names: finding, making, removing and renaming.
#include "diagnostics/log.hpp"
#include "hosts/fuse/protocol/requests.hpp"

#include <cerrno>
#include <cstdio>

namespace tavelin::fusehost {

namespace {

void lookup(fuse_req_t request, fuse_ino_t parent, const char* name) {
    answer(request, [&] {
        MountedVolume& volume = volumeOf(request);
        // Of a file server's handle the kernel asks for the item itself, and for what is above it.
        const bool above = std::string_view(name) == "..";
        const Outcome<std::optional<Entry>> found = above || std::string_view(name) == "."
                                                        ? volume.lookupHandle(parent, above)
                                                        : volume.lookup(volume.node(parent), name);
        if (!found) {
            fuse_reply_err(request, hostError(found.error()));
        } else if (*found) {
            replyEntry(request, **found, name);
        } else {
            // Names change through this kernel only, so it may cache negative dentries as well.
            fuse_entry_param absent{};
            absent.entry_timeout = entryTimeout(request, name);
            fuse_reply_entry(request, &absent);
        }
    });
}

// FORGET has no reply, so a failure is logged. A removal that failed here is repeated at the latest
// at the unmount.
void forgetOne(MountedVolume& volume, fuse_ino_t node, uint64_t counts) noexcept {
    try {
        volume.forget(node, counts);
    } catch (const std::exception& failure) {
        log().error(failure.what());
    }
}

void forget(fuse_req_t request, fuse_ino_t node, uint64_t counts) {
    forgetOne(volumeOf(request), node, counts);
    fuse_reply_none(request);
}

void forgetMany(fuse_req_t request, size_t count, fuse_forget_data* forgets) {
    MountedVolume& volume = volumeOf(request);
    for (size_t i = 0; i < count; ++i) {
        forgetOne(volume, forgets[i].ino, forgets[i].nlookup);
    }
    fuse_reply_none(request);
}

fskit::FSItemType itemType(mode_t mode) {
    switch (mode & S_IFMT) {
    case S_IFREG:
        return fskit::FSItemType::file;
    case S_IFDIR:
        return fskit::FSItemType::directory;
    case S_IFIFO:
        return fskit::FSItemType::fifo;
    case S_IFSOCK:
        return fskit::FSItemType::socket;
    case S_IFCHR:
        return fskit::FSItemType::charDevice;
    case S_IFBLK:
        return fskit::FSItemType::blockDevice;
    default:
        return fskit::FSItemType::unknown;
    }
}

void makeNode(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode, dev_t device) {
    answer(request, [&] {
        MountedVolume& volume = volumeOf(request);
        Node& directory = volume.node(parent);
        Outcome<Entry> entry = volume.create(directory, name, itemType(mode),
                                             attributesOfNew(request, directory, mode, device));
        replyEntry(request, entry, name);
    });
}

void makeDirectory(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode) {
    makeNode(request, parent, name, (mode & ~static_cast<mode_t>(S_IFMT)) | S_IFDIR, 0);
}

void create(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode,
            fuse_file_info* file) {
    answer(request, [&] {
        MountedVolume& volume = volumeOf(request);
        Node& directory = volume.node(parent);
        Outcome<Entry> entry = volume.create(directory, name, fskit::FSItemType::file,
                                             attributesOfNew(request, directory, mode));
        if (!entry) {
            fuse_reply_err(request, hostError(entry.error()));
            return;
        }
        file->keep_cache = 1;
        const fuse_entry_param parameters = entryParameters(request, *entry, name);
        // ENOENT: the request was interrupted, and the kernel never learned of the node.
        if (fuse_reply_create(request, &parameters, file) == -ENOENT) {
            volume.forget(entry->node->number, 1);
        }
    });
}

void makeSymbolicLink(fuse_req_t request, const char* target, fuse_ino_t parent, const char* name) {
    answer(request, [&] {
        MountedVolume& volume = volumeOf(request);
        Node& directory = volume.node(parent);
        Outcome<Entry> entry = volume.createLink(
            directory, name, target, attributesOfNew(request, directory, S_IFLNK | 0777));
        replyEntry(request, entry, name);
    });
}

void makeHardLink(fuse_req_t request, fuse_ino_t number, fuse_ino_t parent, const char* name) {
    answer(request, [&] {
        MountedVolume& volume = volumeOf(request);
        replyEntry(request, volume.createHardLink(volume.node(number), volume.node(parent), name),
                   name);
    });
}

void readSymbolicLink(fuse_req_t request, fuse_ino_t number) {
    answer(request, [&] {
        MountedVolume& volume = volumeOf(request);
        const Outcome<std::string> target =
            volume.volume().readSymbolicLink(volume.node(number).item);
        if (!target) {
            fuse_reply_err(request, hostError(target.error()));
            return;
        }
        fuse_reply_readlink(request, target->c_str());
    });
}

void removeFile(fuse_req_t request, fuse_ino_t parent, const char* name) {
    answer(request, [&] {
        MountedVolume& volume = volumeOf(request);
        replyResult(request, volume.removeFile(volume.node(parent), name));
    });
}

void removeDirectory(fuse_req_t request, fuse_ino_t parent, const char* name) {
    answer(request, [&] {
        MountedVolume& volume = volumeOf(request);
        replyResult(request, volume.removeDirectory(volume.node(parent), name));
    });
}

void rename(fuse_req_t request, fuse_ino_t fromParent, const char* from, fuse_ino_t toParent,
            const char* to, unsigned flags) {
    answer(request, [&] {
        MountedVolume& volume = volumeOf(request);
        if (flags == RENAME_EXCHANGE) {
            replyResult(request,
                        volume.exchange(volume.node(fromParent), from, volume.node(toParent), to));
            return;
        }
        if ((flags & ~static_cast<unsigned>(RENAME_NOREPLACE)) != 0) {
            fuse_reply_err(request, EINVAL); // no white-outs
            return;
        }
        replyResult(request, volume.rename(volume.node(fromParent), from, volume.node(toParent), to,
                                           (flags & RENAME_NOREPLACE) == 0));
    });
}

} // namespace

void addNameRequests(fuse_lowlevel_ops& table) {
    table.lookup = lookup;
    table.forget = forget;
    table.forget_multi = forgetMany;
    table.mknod = makeNode;
    table.mkdir = makeDirectory;
    table.create = create;
    table.symlink = makeSymbolicLink;
    table.link = makeHardLink;
    table.readlink = readSymbolicLink;
    table.unlink = removeFile;
    table.rmdir = removeDirectory;
    table.rename = rename;
}

} // namespace tavelin::fusehost
