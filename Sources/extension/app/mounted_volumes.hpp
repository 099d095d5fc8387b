/// The volumes that the extension serves at the moment, as the system's mount table lists them.
#pragma once

#include <string>
#include <vector>

namespace tavelin {

/// One line for people per mounted volume, such as
/// "/Volumes/Photos (/dev/disk4s1): read-only, 12.3 of 64.0 GB free".
[[nodiscard]] std::vector<std::string> describeMountedVolumes();

} // namespace tavelin
