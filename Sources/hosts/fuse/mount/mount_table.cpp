#include "hosts/fuse/mount/mount_table.hpp"

#include "platform/file_descriptor.hpp"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <spawn.h>
#include <string>
#include <sys/mount.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace tavelin::fusehost {

namespace {

// The exit status of a child, once it has ended.
int exitStatusOf(pid_t child) {
    int status = 0;
    while (::waitpid(child, &status, 0) == -1 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : EINTR;
}

// fusermount3 says why it failed in English only. 0, or the errno that its text stands for.
int errorIn(const std::string& text) {
    for (const int error : {EBUSY, EPERM, EACCES, EINVAL, ENOENT}) {
        if (text.find(std::generic_category().message(error)) != std::string::npos) {
            return error;
        }
    }
    return text.find("not found") != std::string::npos ? EPERM : EIO; // not this user's mount
}

int runFusermount(const std::filesystem::path& directory, bool lazy) {
    std::string program = "fusermount3", unmount = "-u", how = "-z", path = directory;
    char* arguments[] = {program.data(), unmount.data(), lazy ? how.data() : path.data(),
                         lazy ? path.data() : nullptr, nullptr};
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        return errno;
    }
    const FileDescriptor reading(ends[0]);
    FileDescriptor writing(ends[1]);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, writing.get(), STDERR_FILENO);
    pid_t child = 0;
    const int failed =
        ::posix_spawnp(&child, program.c_str(), &actions, nullptr, arguments, environ);
    ::posix_spawn_file_actions_destroy(&actions);
    if (failed != 0) {
        return failed;
    }
    writing.reset();
    std::string text;
    char piece[256];
    while (const size_t got = reading.readSome(piece, sizeof piece).bytes) {
        text.append(piece, got);
    }
    return exitStatusOf(child) == 0 ? 0 : errorIn(text);
}

int flagsOf(bool lazy) {
    return UMOUNT_NOFOLLOW | (lazy ? MNT_DETACH : 0);
}

// The last mount in the table that `wanted` accepts. Of mounts on one directory that is the
// topmost.
template<typename Wanted>
std::optional<MountEntry> lastMount(Wanted&& wanted) {
    std::optional<MountEntry> last;
    for (MountEntry& entry : mountTable()) {
        if (wanted(entry)) {
            last = std::move(entry);
        }
    }
    return last;
}

// Where an unmount by path would reach the mount: ENOENT when it is gone, EBUSY when it is covered.
int pathOf(const MountEntry& mount, std::filesystem::path& directory) {
    const std::optional<MountEntry> own = findAgain(mount);
    if (!own) {
        return ENOENT;
    }
    directory = own->directory;
    const std::optional<MountEntry> topmost = findMount(directory);
    return topmost && topmost->id == mount.id ? 0 : EBUSY;
}

} // namespace

std::optional<MountEntry> findMount(const std::filesystem::path& directory) {
    return lastMount([&](const MountEntry& entry) { return entry.directory == directory; });
}

std::optional<MountEntry> findMade(const MountEntry& made, const std::vector<MountEntry>& before) {
    const auto wasThere = [&](const MountEntry& entry) {
        return std::ranges::any_of(before, [&](const MountEntry& old) {
            return old.id == entry.id && old.device == entry.device;
        });
    };
    // Without a device, the source tells ours from others that are new: nobody else mounts an image
    // that this server has locked.
    const auto isMade = [&](const MountEntry& entry) {
        const bool isSame = made.device.empty() ? entry.source == made.source && !wasThere(entry)
                                                : entry.device == made.device;
        return isSame && entry.type.ends_with(".tavelin");
    };
    std::optional<MountEntry> there = lastMount([&](const MountEntry& entry) {
        return isMade(entry) && entry.directory == made.directory;
    });
    return there ? there : lastMount(isMade);
}

std::optional<MountEntry> findAgain(const MountEntry& mount) {
    return lastMount([&](const MountEntry& entry) {
        return entry.id == mount.id && entry.device == mount.device && entry.type == mount.type &&
               entry.source == mount.source;
    });
}

int unmount(const MountEntry& mount, bool lazy) {
    std::filesystem::path directory;
    if (const int failed = pathOf(mount, directory); failed != 0) {
        return failed == ENOENT ? 0 : failed;
    }
    if (::umount2(directory.c_str(), flagsOf(lazy)) == 0) {
        return 0;
    }
    return errno == EPERM ? runFusermount(directory, lazy) : errno;
}

} // namespace tavelin::fusehost
