/// The directory that the members of an app group share: the extension, the host app and the
/// command line. It holds the event log.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace tavelin {

/// The container of an app group; absent when the system gives none. The directory need not exist
/// yet: the caller that writes into it creates it.
///
/// macOS answers the container that the group entitlement gives. Elsewhere it is the directory
/// $TAVELIN_GROUP_CONTAINER as it stands, whatever the group, else
/// ${XDG_STATE_HOME:-$HOME/.local/state}/tavelin/<group>, and for root /var/lib/tavelin/<group>, so
/// that root's files never depend on another user's directories. Any thread.
[[nodiscard]] std::optional<std::filesystem::path> groupContainer(const std::string& group);

} // namespace tavelin
