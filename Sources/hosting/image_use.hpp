/// Whether somebody else uses a disk image or a block device, in ways that our lock on it does not
/// show: other drivers' mounts, loop devices over it, programs that have it open for writing.
#pragma once

#include "platform/mount_info.hpp"

#include <filesystem>
#include <string>
#include <vector>

namespace tavelin {

/// What keeps the image at `path` from being opened, as the end of a sentence about it ("it is
/// mounted on /mnt"); empty when nothing does. Changing is refused beside every other use, reading
/// beside those that may change it. To be called while the caller itself does not have it open for
/// writing, which could not be told from others that have.
///
/// What it looks at is the mount table, the loop devices, the locks on the file behind one, and, as
/// far as this user may ask, the kernel's count of writers. The last of these also knows of other
/// containers. Somebody may begin right after the answer; only locks and exclusive opens exclude
/// that. Linux only: elsewhere the answer is empty.
[[nodiscard]] std::string otherUse(const std::filesystem::path& path, bool forWriting);

/// The mounts of the image or block device at `path`: of itself, of a loop device over the image,
/// or of one of that device's partitions. Whatever mounts they are, and only those that this
/// process's namespace shows. Empty elsewhere than on Linux.
[[nodiscard]] std::vector<MountEntry> mountsOf(const std::filesystem::path& path);

} // namespace tavelin
