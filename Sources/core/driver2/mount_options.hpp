/// What the arguments of a mount mean. Pure; any thread.
#pragma once

#include <optional>
#include <span>
#include <string>

namespace tavelin::Driver2 {

/// What a mount's arguments ask for. "-r", "--rdonly", "ro" and "rdonly" ask for read-only; "-o"
/// takes a list separated by commas, as its next argument or attached, of "ro", "rdonly",
/// "nocheck", "windows_names" or "nowindows_names", "normalize_names" or "nonormalize_names",
/// "ignore_case" or "noignore_case", and "symlinks=windows" or "symlinks=interix". Of a pair the
/// last counts. Anything else is ignored.
struct MountOptions {
    MountOptions() = default;
    explicit MountOptions(std::span<const std::string> arguments);

    bool readOnly = false;
    bool noCheck = false;      ///< mount for writing without a check what others left in doubt
    bool windowsLinks = false; ///< make links in the form of Windows, not of Interix
    /// Refuse names that Windows cannot represent; absent leaves that to the host's default.
    std::optional<bool> windowsNames;
    /// Find names in all normal forms and make them in the composed one; absent as above.
    std::optional<bool> normalizeNames;
    /// Find names in any case; absent leaves that as it is.
    std::optional<bool> ignoreCase;

    bool operator==(const MountOptions&) const = default;
};

} // namespace tavelin::Driver2
