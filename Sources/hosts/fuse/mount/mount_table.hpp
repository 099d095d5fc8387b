/// Finding mounts in the kernel's table, and taking one out of it.
#pragma once

#include "platform/mount_info.hpp"

#include <filesystem>
#include <optional>

namespace tavelin::fusehost {

/// The topmost mount on a directory, given by its absolute path; absent when nothing is mounted
/// there. Never asks the mounted file system itself.
std::optional<MountEntry> findMount(const std::filesystem::path& directory);

/// The mount that this process has just made, whatever was mounted over it or beside it since, and
/// wherever its directory was moved; absent when it has gone already. Of `made` the directory and
/// the device are looked at and, where the device is not known, the source and whether the mount is
/// in `before`, the table as it was then. Of several that show one file system it is the one on the
/// directory.
std::optional<MountEntry> findMade(const MountEntry& made, const std::vector<MountEntry>& before);

/// Where a mount is now; absent when it has been unmounted. The kernel reuses ids at once, so the
/// device, the type and the source have to be the same as well. A mount of ours is told from every
/// other by that for as long as its server holds the image, and not a moment longer: the next mount
/// may get the same loop device.
std::optional<MountEntry> findAgain(const MountEntry& mount);

/// Unmounts one mount, through fusermount3 where the process has no right to. A lazy unmount takes
/// the directory away at once and lets those who use it finish. 0, also when the mount is gone
/// already; EBUSY when it is in use or another mount lies on top of it; or another host errno.
///
/// The kernel unmounts by path only, so the path is looked up right before. Nothing but
/// this mount is unmounted when its directory was moved or covered since it was made.
int unmount(const MountEntry& mount, bool lazy);

} // namespace tavelin::fusehost
