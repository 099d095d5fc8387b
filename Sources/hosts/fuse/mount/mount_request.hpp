/// What a user asks of one mount, taken from the words after `-o`. Plain values for one thread; a
/// mount keeps a copy. Options that mean nothing are handed back, other errors there are none.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace tavelin::fusehost {

struct MountRequest {
    std::filesystem::path image; ///< an image file or a block device, as an absolute path
    std::filesystem::path directory;

    std::vector<std::string> volumeOptions; ///< words for the volume itself, each a bare option
    std::vector<std::string> kernelOptions; ///< words for the kernel, such as "noatime"
    /// Absent: the mounting user, and nothing masked.
    std::optional<uid_t> user;
    std::optional<gid_t> group;
    /// Permission bits that are taken away, as umask(2) has them.
    std::optional<mode_t> fileMask, directoryMask;
    /// Owners, modes and special files are kept on the volume, and the kernel goes by them.
    bool permissions = false;
    bool streams = true; ///< named streams are extended attributes
    /// Refuse changes, whatever the image allows.
    bool readOnly = false;
    /// Let other users than the mounting one use the mount; the kernel has to allow that.
    bool allowOther = false;
    bool writeback = false;  ///< the kernel gathers writes, and sends them when they are due
    bool lowLatency = false; ///< keep processors out of deep idle states, see CpuLatencyRequest
    bool sandbox = true;     ///< the server gives up what serving does not need, see sandbox.hpp
    /// Stay in the terminal and do not make a process of its own.
    bool foreground = false;
    bool trace = false; ///< print every request to standard error, and their counts at the end
};

/// Applies one comma-separated option list. Answers the words that mean nothing here or have a
/// value that means nothing, for a message; words that only mount(8), fstab and desktops care about
/// are taken and ignored.
std::vector<std::string> applyOptions(std::string_view list, MountRequest& request);

/// The words as one comma-separated option list.
[[nodiscard]] std::string joined(const std::vector<std::string>& words);

} // namespace tavelin::fusehost
