/// The kernel's table of mounts, and taking one out of it.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace tavelin::fusehost {

struct MountEntry {
    std::string device; ///< "major:minor"
    std::filesystem::path directory;
    std::string type;   ///< "fuse.tavelin", "fuseblk.tavelin", …
    std::string source; ///< what is mounted
    bool readOnly = false;
};

/// The topmost mount on a directory, given by its absolute path; absent when nothing is mounted
/// there. Never asks the mounted file system itself.
std::optional<MountEntry> findMount(const std::filesystem::path& directory);

/// Unmounts, through fusermount3 where the process has no right to; 0 or a host errno. A lazy
/// unmount takes the directory away at once and lets those who use it finish.
int unmountDirectory(const std::filesystem::path& directory, bool lazy);

/// The same for the process that serves the directory, which must serve on meanwhile: what is dirty
/// in the kernel comes back to it first. The calls that wait for our own answers are made in a
/// child process; a thread of ours in them could never end if the others were killed.
int unmountOwnDirectory(const std::filesystem::path& directory, bool lazy);

} // namespace tavelin::fusehost
