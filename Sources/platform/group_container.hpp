/// The directory that an app group's members share.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace tavelin {

/// The container of an app group; absent when the system gives none. The directory need not exist
/// yet. Outside macOS: $TAVELIN_GROUP_CONTAINER as it stands, else
/// ${XDG_STATE_HOME:-$HOME/.local/state}/tavelin/<group>. Any thread.
[[nodiscard]] std::optional<std::filesystem::path> groupContainer(const std::string& group);

} // namespace tavelin
