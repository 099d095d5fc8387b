/// What the arguments of a mount mean. Pure; any thread.
#pragma once

#include <span>
#include <string>

namespace tavelin::Driver2 {

/// What a mount's arguments ask for. "-r", "--rdonly", "ro" and "rdonly" ask for read-only; "-o"
/// takes a list separated by commas, as its next argument or attached, of "ro", "rdonly" and
/// "windows_names", "nocheck", and "symlinks=windows" or "symlinks=interix", of which the last
/// counts. The others only switch on; anything else is ignored.
struct MountOptions {
    MountOptions() = default;
    explicit MountOptions(std::span<const std::string> arguments);

    bool readOnly = false;
    bool windowsNames = false; ///< refuse names that Windows cannot represent
    bool noCheck = false;      ///< mount for writing without a check what others left in doubt
    bool windowsLinks = false; ///< make links in the form of Windows, not of Interix

    bool operator==(const MountOptions&) const = default;
};

} // namespace tavelin::Driver2
