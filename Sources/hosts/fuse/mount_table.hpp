/// The kernel's table of mounts, and taking one out of it.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace tavelin::fusehost {

struct MountEntry {
    std::string device; ///< "major:minor"
    std::filesystem::path folder;
    std::string type;   ///< "fuse.tavelin", "fuseblk.tavelin", …
    std::string source; ///< what is mounted
    bool readOnly = false;
};

/// The topmost mount on a folder, given by its absolute path; absent when nothing is mounted
/// there. Never asks the mounted file system itself.
std::optional<MountEntry> findMount(const std::filesystem::path& folder);

/// Unmounts, through fusermount3 where the process has no right to; 0 or a host errno. A lazy
/// unmount takes the folder away at once and lets those who use it finish.
int unmountFolder(const std::filesystem::path& folder, bool lazy);

} // namespace tavelin::fusehost
