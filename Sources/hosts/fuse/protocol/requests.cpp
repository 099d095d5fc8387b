// The table of requests, the session's settings, and requests about attributes and the volume.
#include "hosts/fuse/protocol/requests.hpp"

#include "core/driver2/item_identity.hpp"
#include "diagnostics/log.hpp"
#include "platform/error_numbers.hpp"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <linux/fs.h>
#include <new>
#include <stdexcept>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>

namespace tavelin::fusehost {

namespace {

constexpr blksize_t kBlockSize = 4096; // what programs are told to read and write by
constexpr uint64_t kStatusBlock = 512; // the unit of st_blocks

void initialise(void* userData, fuse_conn_info* connection) {
    const auto& context = *static_cast<SessionContext*>(userData);
    const auto want = [&](unsigned capability, bool on) {
        connection->want &= ~capability;
        connection->want |= on ? connection->capable & capability : 0u;
    };
    want(FUSE_CAP_READDIRPLUS | FUSE_CAP_READDIRPLUS_AUTO, true);
    want(FUSE_CAP_EXPORT_SUPPORT, true); // handles are good after the kernel has forgotten a node
    want(FUSE_CAP_IOCTL_DIR, true);      // fstrim(8) asks by the root directory
    want(FUSE_CAP_ASYNC_READ | FUSE_CAP_PARALLEL_DIROPS | FUSE_CAP_CACHE_SYMLINKS, true);
    // Nothing but the kernel's own requests changes the volume, so its caches are always right.
    want(FUSE_CAP_AUTO_INVAL_DATA, false);
    want(FUSE_CAP_EXPLICIT_INVAL_DATA, true);
    // The kernel takes set-ID bits away as it does elsewhere, and sends the mode that is left.
    want(FUSE_CAP_HANDLE_KILLPRIV, false);
    // An asynchronous direct write would end without the kernel dropping what buffered readers have
    // cached of its range meanwhile; it does where such a write is synchronous.
    want(FUSE_CAP_ASYNC_DIO, false);
    want(FUSE_CAP_WRITEBACK_CACHE, context.gathersWrites);
    // There are no opens (see below) that could carry a truncation with them.
    want(FUSE_CAP_ATOMIC_O_TRUNC, false);
    connection->max_write = kTransferBytesMax;
    connection->max_readahead = kTransferBytesMax;
    connection->max_background = 64;
    connection->time_gran = 100; // nanoseconds
    context.served();
}

void destroy(void* context) {
    static_cast<SessionContext*>(context)->unmounted();
}

// Answered once and for all: the kernel then opens files without asking, and sends neither flushes
// nor releases. What is open is known by the counts it holds on nodes.
void open(fuse_req_t request, fuse_ino_t /*node*/, fuse_file_info* /*file*/) {
    fuse_reply_err(request, ENOSYS);
}

void getAttributes(fuse_req_t request, fuse_ino_t number, fuse_file_info* /*file*/) {
    answer(request, [&] {
        MountedVolume& volume = volumeOf(request);
        const Outcome<fskit::FSItemAttributes> attributes = volume.attributes(volume.node(number));
        if (!attributes) {
            fuse_reply_err(request, hostError(attributes.error()));
            return;
        }
        const struct stat status = statusOf(request, *attributes);
        fuse_reply_attr(request, &status, kForever);
    });
}

timespec chosenTime(const timespec& given, bool now) {
    timespec time = given;
    if (now) {
        std::timespec_get(&time, TIME_UTC);
    }
    return time;
}

fskit::FSItemSetAttributesRequest changesOf(const struct stat& wanted, int which) {
    fskit::FSItemSetAttributesRequest changes;
    if ((which & FUSE_SET_ATTR_SIZE) != 0) {
        changes.setSize(static_cast<uint64_t>(wanted.st_size));
    }
    if ((which & FUSE_SET_ATTR_MODE) != 0) {
        changes.setMode(wanted.st_mode);
    }
    if ((which & FUSE_SET_ATTR_UID) != 0) {
        changes.setUid(wanted.st_uid);
    }
    if ((which & FUSE_SET_ATTR_GID) != 0) {
        changes.setGid(wanted.st_gid);
    }
    if ((which & FUSE_SET_ATTR_ATIME) != 0) {
        changes.setAccessTime(chosenTime(wanted.st_atim, (which & FUSE_SET_ATTR_ATIME_NOW) != 0));
    }
    if ((which & FUSE_SET_ATTR_MTIME) != 0) {
        changes.setModifyTime(chosenTime(wanted.st_mtim, (which & FUSE_SET_ATTR_MTIME_NOW) != 0));
    }
    if ((which & FUSE_SET_ATTR_CTIME) != 0) {
        changes.setChangeTime(wanted.st_ctim);
    }
    return changes;
}

void setAttributes(fuse_req_t request, fuse_ino_t number, struct stat* wanted, int which,
                   fuse_file_info* /*file*/) {
    answer(request, [&] {
        MountedVolume& volume = volumeOf(request);
        fskit::FSItemSetAttributesRequest changes = changesOf(*wanted, which);
        const Outcome<fskit::FSItemAttributes> attributes =
            volume.setAttributes(volume.node(number), changes);
        if (!attributes) {
            fuse_reply_err(request, hostError(attributes.error()));
            return;
        }
        const struct stat status = statusOf(request, *attributes);
        fuse_reply_attr(request, &status, kForever);
    });
}

void volumeStatistics(fuse_req_t request, fuse_ino_t /*node*/) {
    answer(request, [&] {
        VolumeClient& volume = volumeOf(request).volume();
        const fskit::FSStatFSResult found = volume.statistics();
        struct statvfs status {};
        status.f_bsize = static_cast<unsigned long>(found.blockSize);
        status.f_frsize = status.f_bsize;
        status.f_blocks = found.totalBlocks;
        status.f_bfree = found.freeBlocks;
        status.f_bavail = found.availableBlocks;
        // The volume's total counts room for records that nobody uses, and `df -i` shows as used
        // what the total has beyond the free ones.
        const Outcome<uint64_t> used = volume.requests().filesInUse();
        status.f_files = used ? *used + found.freeFiles : found.totalFiles;
        status.f_ffree = found.freeFiles;
        status.f_favail = found.freeFiles;
        status.f_namemax = static_cast<unsigned long>(volume.requests().maximumNameLength());
        fuse_reply_statfs(request, &status);
    });
}

void synchronize(fuse_req_t request, fuse_ino_t /*node*/, int /*dataOnly*/,
                 fuse_file_info* /*file*/) {
    answer(request, [&] { replyResult(request, volumeOf(request).synchronize()); });
}

// FITRIM alone: the volume's free space, whatever item it is asked of. The kernel passes structure
// and length as the number of the request says.
void control(fuse_req_t request, fuse_ino_t /*node*/, unsigned command, void* /*argument*/,
             fuse_file_info* /*file*/, unsigned /*flags*/, const void* given, size_t givenSize,
             size_t room) {
    answer(request, [&] {
        fstrim_range range{};
        if (command != FITRIM || givenSize < sizeof range || room < sizeof range) {
            fuse_reply_err(request, ENOTTY);
            return;
        }
        if (fuse_req_ctx(request)->uid != 0) {
            fuse_reply_err(request, EPERM);
            return;
        }
        std::memcpy(&range, given, sizeof range);
        const Outcome<uint64_t> trimmed = volumeOf(request).trim(
            {.offset = range.start, .length = range.len, .minimum = range.minlen}, [request] {
                return fuse_req_interrupted(request) == 0 && !contextOf(request).isEnding();
            });
        if (!trimmed) {
            fuse_reply_err(request, hostError(trimmed.error()));
            return;
        }
        range.len = *trimmed;
        fuse_reply_ioctl(request, 0, &range, sizeof range);
    });
}

// Everything is permitted that no mask forbids, and files are programs to whoever runs them: the
// volume says nothing of either.
mode_t modeOf(const fskit::FSItemAttributes& attributes, const Ownership& ownership) {
    const mode_t type = attributes.mode() & S_IFMT;
    switch (type) {
    case S_IFLNK:
        return type | 0777;
    case S_IFDIR:
        return type | (0777 & ~ownership.directoryMask);
    case S_IFREG:
        return type | (0777 & ~ownership.fileMask);
    default:
        return type | (0666 & ~ownership.fileMask);
    }
}

} // namespace

const SessionContext& contextOf(fuse_req_t request) {
    return *static_cast<const SessionContext*>(fuse_req_userdata(request));
}

MountedVolume& volumeOf(fuse_req_t request) {
    return *contextOf(request).volume;
}

void replyException(fuse_req_t request) noexcept {
    try {
        throw;
    } catch (const std::bad_alloc&) {
        fuse_reply_err(request, ENOMEM);
    } catch (const std::out_of_range&) {
        fuse_reply_err(request, ESTALE); // a node that the kernel was not given
    } catch (...) {
        fuse_reply_err(request, EIO);
    }
}

int hostError(const fskit::Error& error) {
    return error.isPOSIX() ? toHost(static_cast<int32_t>(error.code())) : EIO;
}

const ItemRef& itemOf(fuse_req_t request, fuse_ino_t number) {
    return volumeOf(request).node(number).item;
}

ino_t inodeNumber(fskit::FSItemID id) noexcept {
    return Driver2::ino(id);
}

struct stat statusOf(fuse_req_t request, const fskit::FSItemAttributes& attributes) {
    const Ownership& ownership = contextOf(request).ownership;
    struct stat status {};
    status.st_ino = inodeNumber(attributes.fileID());
    const bool isKept = contextOf(request).keepsOwners;
    status.st_mode = isKept ? attributes.mode() : modeOf(attributes, ownership);
    const uint64_t device = attributes.native().device;
    status.st_rdev =
        makedev(static_cast<unsigned>(device >> 32), static_cast<unsigned>(device & UINT32_MAX));
    status.st_nlink = attributes.linkCount();
    status.st_uid = isKept ? attributes.uid() : ownership.user;
    status.st_gid = isKept ? attributes.gid() : ownership.group;
    status.st_size = static_cast<off_t>(attributes.size());
    status.st_blocks =
        static_cast<blkcnt_t>((attributes.allocSize() + kStatusBlock - 1) / kStatusBlock);
    status.st_blksize = kBlockSize;
    status.st_atim = attributes.accessTime();
    status.st_mtim = attributes.modifyTime();
    status.st_ctim = attributes.changeTime();
    return status;
}

// The kernel has taken the umask off the mode, and the set-group-ID bit where the program may not
// have it. A set-group-ID directory hands its group on, and to directories the bit as well.
fskit::FSItemSetAttributesRequest attributesOfNew(fuse_req_t request, const Node& directory,
                                                  mode_t mode, dev_t device) {
    fskit::FSItemSetAttributesRequest wanted;
    if (!contextOf(request).keepsOwners) {
        return wanted;
    }
    const fskit::FSItemAttributes above = volumeOf(request).attributes(directory).get();
    const bool handsOn = (above.mode() & S_ISGID) != 0;
    const fuse_ctx* const program = fuse_req_ctx(request);
    wanted.setUid(program->uid);
    wanted.setGid(handsOn ? above.gid() : program->gid);
    wanted.setMode(handsOn && S_ISDIR(mode) ? mode | S_ISGID : mode);
    fskit::FSItemNativeAttributes native;
    native.device = static_cast<uint64_t>(major(device)) << 32 | minor(device);
    wanted.setNative(native);
    return wanted;
}

// A short alias such as LETTER~1.TXT comes and goes with the long name, behind the kernel's back:
// names that may be one are asked for each time. So are all names where case does not count: what
// is done to one spelling holds for the others.
double entryTimeout(fuse_req_t request, std::string_view name) {
    return mayBeDosName(name) || volumeOf(request).ignoresCase() ? 0 : kForever;
}

fuse_entry_param entryParameters(fuse_req_t request, const Entry& entry, std::string_view name) {
    fuse_entry_param parameters{};
    parameters.ino = entry.node->number;
    parameters.generation = entry.node->generation();
    parameters.attr = statusOf(request, entry.attributes);
    parameters.attr_timeout = kForever;
    parameters.entry_timeout = entryTimeout(request, name);
    return parameters;
}

void replyEntry(fuse_req_t request, const Outcome<Entry>& entry, std::string_view name) {
    if (!entry) {
        fuse_reply_err(request, hostError(entry.error()));
        return;
    }
    MountedVolume& volume = volumeOf(request);
    const fuse_entry_param parameters = entryParameters(request, *entry, name);
    if (fuse_reply_entry(request, &parameters) == -ENOENT) {
        volume.forget(entry->node->number, 1);
    }
}

void replyResult(fuse_req_t request, const Outcome<void>& result) {
    fuse_reply_err(request, result ? 0 : hostError(result.error()));
}

const fuse_lowlevel_ops& requestTable() {
    static const fuse_lowlevel_ops table = [] {
        fuse_lowlevel_ops all{};
        all.init = initialise;
        all.destroy = destroy;
        all.open = open;
        all.getattr = getAttributes;
        all.setattr = setAttributes;
        all.statfs = volumeStatistics;
        all.ioctl = control;
        all.fsync = synchronize;
        all.fsyncdir = synchronize;
        addNameRequests(all);
        addDirectoryRequests(all);
        addDataRequests(all);
        addXattrRequests(all);
        return all;
    }();
    return table;
}

} // namespace tavelin::fusehost
