/// What a user asks of one mount, taken from the words after `-o`. Plain values for one thread; a
/// mount keeps a copy. Options that mean nothing are handed back, other errors there are none.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace tavelin::fusehost {

struct MountRequest {
    std::filesystem::path image; ///< an image file or a block device, as an absolute path
    std::filesystem::path directory;

    std::vector<std::string> volumeOptions; ///< words for the volume itself, each a bare option
    std::vector<std::string> kernelOptions; ///< words for the kernel, such as "noatime"
    bool readOnly = false;
    bool allowOther = false;
    bool lowLatency = false; ///< keep processors out of deep idle states, see CpuLatencyRequest
    bool foreground = false;
    bool trace = false; ///< print every request to standard error, and their counts at the end
};

/// Applies one comma-separated option list. Answers the words that mean nothing here, for a
/// message; words that only mount(8) and fstab care about are taken and ignored.
std::vector<std::string> applyOptions(std::string_view list, MountRequest& request);

} // namespace tavelin::fusehost
