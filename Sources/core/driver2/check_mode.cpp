#include "core/driver2/check_mode.hpp"

#include "core/ntfs_error.hpp"
#include "platform/error_numbers.hpp"

#include <algorithm>

namespace tavelin::Driver2 {

CheckMode checkMode(std::span<const std::string> arguments) {
    CheckMode mode = CheckMode::quick;
    for (const std::string& argument : arguments) {
        if (argument == "-n") {
            mode = std::max(mode, CheckMode::verify);
        } else if (argument == "-y") {
            mode = CheckMode::repair;
        } else if (argument != "-q") {
            throw NTFSError(kEINVAL);
        }
    }
    return mode;
}

std::optional<std::int32_t> checkError(CheckMode mode, bool volumeLoaded) noexcept {
    if (mode == CheckMode::repair) {
        return kENOTSUP;
    }
    return volumeLoaded ? std::nullopt : std::optional(kENXIO);
}

} // namespace tavelin::Driver2
