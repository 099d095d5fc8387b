/// What the command line offers over FUSE: `tavelin mount`, `tavelin umount`, and what it asks the
/// server of a mount.
#pragma once

#include "hosts/fuse/mount/mount_request.hpp"

#include <filesystem>
#include <vector>

namespace tavelin::fusehost {

/// Mounts an image and serves it. Unless it stays in the foreground, it returns in the calling
/// process once the directory shows the volume, while a process of its own serves it; so it must be
/// called before any thread is started. Closes every descriptor but the standard ones first. Exit
/// code: 0, or 1 after saying why on standard error. In
/// the serving process the code tells whether everything reached the image.
int mountVolume(const MountRequest& request);

/// Unmounts a directory and waits until everything is on the image and its server has let go of it.
/// Exit code: 0, or 1 after saying why on standard error.
int unmountVolume(const std::filesystem::path& directory);

/// Where an image is mounted by tavelin.
struct MountOfImage {
    std::filesystem::path directory;
    /// 0 once its server has written back all that was done before; otherwise a host errno.
    int synchronizeError = 0;
};

/// Asks the server of each mount of an image or block device to write everything back. Empty when
/// the image is not mounted by tavelin, as far as this process can see.
[[nodiscard]] std::vector<MountOfImage> synchronizeMountsOf(const std::filesystem::path& image);

/// A mount of ours, as its process and the kernel tell of it.
struct ServedVolume {
    std::filesystem::path image; ///< of a loop device, the file that it shows
    std::filesystem::path directory;
    bool readOnly = false;
    pid_t server = 0; ///< 0 when it cannot be known: dead, or of another process namespace
    /// A host errno: ENOTCONN when the server is dead, EACCES for others' mounts, ETIMEDOUT when it
    /// has not answered for five seconds.
    int error = 0;
};

/// All mounts of ours in this process's mount namespace, in the order in which they were made.
[[nodiscard]] std::vector<ServedVolume> servedVolumes();

} // namespace tavelin::fusehost
