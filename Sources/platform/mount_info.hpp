/// The kernel's table of mounts, as this process's mount namespace has it: /proc/self/mountinfo of
/// proc(5). Reading it never asks a mounted file system, so a dead one does not hang the reader.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace tavelin {

/// One line of the table. Paths are as this process sees them, with their escapes undone.
struct MountEntry {
    int id = 0;         ///< of this mount while it lasts; the kernel gives it to another afterwards
    std::string device; ///< "major:minor"
    std::filesystem::path directory;
    std::string type;           ///< "fuse.tavelin", "fuseblk.tavelin", …
    std::string source;         ///< what is mounted
    std::string options;        ///< of this mount, comma separated
    std::string superOptions;   ///< of the file system, whichever mount shows it
    bool readOnly = false;      ///< this mount refuses changes
    bool superReadOnly = false; ///< every mount of the same file system does
};

/// In the order of the table: of mounts on one directory the topmost is the last. Empty where there
/// is no such table. Any thread. Another process's table is that of its own mount namespace.
[[nodiscard]] std::vector<MountEntry>
mountTable(const std::filesystem::path& table = "/proc/self/mountinfo");

} // namespace tavelin
