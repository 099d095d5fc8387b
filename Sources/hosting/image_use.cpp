#include "hosting/image_use.hpp"

#if defined(__linux__)

#include "platform/assert.hpp"
#include "platform/file_descriptor.hpp"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <fstream>
#include <limits>
#include <optional>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <utility>

#endif

namespace tavelin {

#if defined(__linux__)

namespace {

namespace fs = std::filesystem;

constexpr uint64_t kSysfsSectorBytes = 512; // the unit of sizes and starts in sysfs

/// A file or a device, by what stays the same whatever path leads to it.
struct Identity {
    dev_t device;
    ino_t inode; // 0 for a block device, which is its own device number
    bool operator==(const Identity&) const = default;
};

std::optional<Identity> identityOf(const fs::path& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        return std::nullopt;
    }
    return S_ISBLK(status.st_mode) ? Identity{status.st_rdev, 0}
                                   : Identity{status.st_dev, status.st_ino};
}

std::string firstLine(const fs::path& file) {
    std::ifstream stream(file);
    std::string line;
    std::getline(stream, line);
    return line;
}

uint64_t numberIn(const fs::path& file) {
    uint64_t number = 0;
    std::ifstream(file) >> number;
    return number;
}

/// The bytes of a file that a loop device, or a partition of one, stands for.
struct LoopExtent {
    fs::path file;
    uint64_t begin = 0;
    uint64_t end = std::numeric_limits<uint64_t>::max();

    bool overlaps(const LoopExtent& other) const { return begin < other.end && other.begin < end; }
};

/// `directory` is the device's directory in sysfs. Absent for what is no loop device in use.
std::optional<LoopExtent> loopExtent(const fs::path& directory) {
    // sysfs describes a partition in a directory below its disk's; only the disk's has loop/.
    const bool partition = fs::exists(directory / "partition");
    const fs::path disk = partition ? directory / ".." : directory;
    const std::string file = firstLine(disk / "loop/backing_file");
    if (file.empty()) {
        return std::nullopt;
    }
    const uint64_t start = partition ? numberIn(directory / "start") * kSysfsSectorBytes : 0;
    const uint64_t begin = numberIn(disk / "loop/offset") + start;
    return LoopExtent{file, begin, begin + numberIn(directory / "size") * kSysfsSectorBytes};
}

fs::path sysfsDirectory(const Identity& device) {
    TAVELIN_ASSERT(device.inode == 0);
    return "/sys/dev/block/" + std::to_string(major(device.device)) + ":" +
           std::to_string(minor(device.device));
}

/// Another loop device over the same bytes: its own name, or empty.
std::string loopOver(const LoopExtent& extent, const std::optional<Identity>& except,
                     bool forWriting) {
    // Compared by identity: the backing file may have been attached by another path.
    const std::optional<Identity> image = identityOf(extent.file);
    std::error_code none;
    for (const fs::directory_entry& entry : fs::directory_iterator("/sys/block", none)) {
        std::string name = entry.path().filename();
        const auto other = name.starts_with("loop") ? loopExtent(entry.path()) : std::nullopt;
        if (!other || !other->overlaps(extent) || !image || identityOf(other->file) != image ||
            identityOf("/dev/" + name) == except) {
            continue;
        }
        // One that cannot write only matters to somebody who will.
        if (forWriting || numberIn(entry.path() / "ro") == 0) {
            return name;
        }
    }
    return {};
}

/// Only file systems of this kind are mounted from an image; asking for the identity of another's
/// source could hang on a server that is gone.
bool mayBeOfImage(const MountEntry& entry) {
    return entry.source.starts_with('/') &&
           (entry.type.starts_with("fuse") || entry.type.starts_with("ntfs"));
}

/// Where the file or device is mounted, as a sentence, or empty. Mounts that cannot write only
/// matter to somebody who will.
std::string mountOf(const Identity& identity, bool forWriting) {
    for (const MountEntry& entry : mountTable()) {
        if (mayBeOfImage(entry) && (forWriting || !entry.superReadOnly) &&
            identityOf(entry.source) == identity) {
            return "it is mounted on " + entry.directory.string();
        }
    }
    return {};
}

/// How long a program that has just been told to end, such as the server of a mount that was just
/// unmounted, may take to close the image.
constexpr auto kWriterEndMax = std::chrono::seconds(2);

/// Whether somebody has the file open for writing; false also where this user may not ask. A read
/// lease is granted only while nobody has.
bool hasWriterNow(const FileDescriptor& file) {
    // Somebody who opens the file meanwhile waits until the lease is given back, and we are told of
    // it by a signal, which must be one that is ignored.
    (void)::fcntl(file.get(), F_SETSIG, SIGURG);
    if (::fcntl(file.get(), F_SETLEASE, F_RDLCK) != 0) {
        return errno == EAGAIN;
    }
    (void)::fcntl(file.get(), F_SETLEASE, F_UNLCK); // cannot fail for the one that holds it
    return false;
}

/// The same, after a writer has had time to finish.
bool hasWriter(const fs::path& path) {
    const FileDescriptor file(path.c_str(), O_RDONLY | O_NONBLOCK);
    const FileDescriptor closes(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    (void)::inotify_add_watch(closes.get(), path.c_str(), IN_CLOSE_WRITE);
    const auto end = std::chrono::steady_clock::now() + kWriterEndMax;
    while (hasWriterNow(file)) {
        if (std::chrono::steady_clock::now() >= end) {
            return true;
        }
        // The event comes a moment before the file counts as closed, so it is not the only reason
        // to look again.
        constexpr int kStep = 50; // milliseconds
        pollfd event{closes.get(), POLLIN, 0};
        if (::poll(&event, 1, kStep) > 0) {
            char events[4096];
            (void)closes.readSome(events, sizeof events);
        }
    }
    return false;
}

/// Whether somebody holds a lock on the file that ours would meet.
bool isLocked(const fs::path& path, bool forWriting) {
    const FileDescriptor file(path.c_str(), O_RDONLY | O_NONBLOCK);
    struct flock whole {};
    whole.l_type = forWriting ? F_WRLCK : F_RDLCK;
    whole.l_whence = SEEK_SET;
    return ::fcntl(file.get(), F_OFD_GETLK, &whole) == 0 && whole.l_type != F_UNLCK;
}

/// Uses of the file behind the loop device `identity`. That the device itself is in use shows when
/// it is opened exclusively.
std::string useBehindLoop(const Identity& identity, bool forWriting) {
    TAVELIN_ASSERT(identity.inode == 0);
    const std::optional<LoopExtent> extent = loopExtent(sysfsDirectory(identity));
    if (!extent) {
        return {};
    }
    if (const std::string loop = loopOver(*extent, identity, forWriting); !loop.empty()) {
        return "its image is attached to /dev/" + loop + " too";
    }
    const std::optional<Identity> image = identityOf(extent->file);
    if (const std::string mounted = image ? mountOf(*image, forWriting) : ""; !mounted.empty()) {
        return "its image is in use: " + mounted;
    }
    return isLocked(extent->file, forWriting) ? "another program is using its image" : "";
}

} // namespace

std::string otherUse(const fs::path& path, bool forWriting) {
    const std::optional<Identity> identity = identityOf(path);
    if (!identity) {
        return {};
    }
    if (std::string mounted = mountOf(*identity, forWriting); !mounted.empty()) {
        return mounted;
    }
    if (identity->inode == 0) {
        return useBehindLoop(*identity, forWriting);
    }
    // Before the lease: a loop device that may write refuses it too, without saying which one it
    // is.
    if (const std::string loop = loopOver({path}, std::nullopt, forWriting); !loop.empty()) {
        return "it is attached to /dev/" + loop;
    }
    return hasWriter(path) ? "another program has it open for writing" : "";
}

std::vector<MountEntry> mountsOf(const fs::path& path) {
    std::vector<MountEntry> mounts;
    const std::optional<Identity> image = identityOf(path);
    for (MountEntry& entry : mountTable()) {
        const auto source = image && mayBeOfImage(entry) ? identityOf(entry.source) : std::nullopt;
        if (!source) {
            continue;
        }
        const auto extent = source->inode == 0 ? loopExtent(sysfsDirectory(*source)) : std::nullopt;
        if (source == image || (extent && identityOf(extent->file) == image)) {
            mounts.push_back(std::move(entry));
        }
    }
    return mounts;
}

#else

std::string otherUse(const std::filesystem::path& /*path*/, bool /*forWriting*/) {
    return {};
}

std::vector<MountEntry> mountsOf(const std::filesystem::path& /*path*/) {
    return {};
}

#endif

} // namespace tavelin
