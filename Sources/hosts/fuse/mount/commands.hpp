/// What the command line offers over FUSE: `tavelin mount` and `tavelin umount`.
#pragma once

#include "hosts/fuse/mount/mount_request.hpp"

#include <filesystem>

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

} // namespace tavelin::fusehost
