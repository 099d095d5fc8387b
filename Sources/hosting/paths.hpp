/// Path-based work on a volume: for hosts whose users name items by paths.
///
/// A path that does not begin with "/" is relative to VolumeClient::workingDirectory(), which is
/// the volume's root unless somebody sets it. Empty components and "." do not count; ".." goes up,
/// at the root to itself. Symbolic links on the way are followed inside the volume (an absolute
/// target starts at its root), the last one only when asked to; more than kLinkDepthMax are kELOOP.
/// May be called from any thread.
#pragma once

#include "hosting/volume_client.hpp"

#include <string>
#include <string_view>

namespace tavelin {

/// As many as the kernel of Linux follows in one path.
inline constexpr int kLinkDepthMax = 40;

/// Whether a path whose last component is a symbolic link leads to the link or to its target.
enum class LastLink { follow, keep };

/// The item that a path leads to, and its attributes.
Outcome<Found> resolve(VolumeClient& volume, std::string_view path,
                       LastLink last = LastLink::follow);

/// A name in a directory: where something is, or is to be made.
struct Location {
    ItemRef directory;
    std::string name;
};

/// The directory that holds the path's last component, and that component, which need not exist.
/// kEINVAL for the root itself and for paths that end in "..".
Outcome<Location> locate(VolumeClient& volume, std::string_view path);

} // namespace tavelin
