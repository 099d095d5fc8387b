/// The name and version of the operating system, for people to read.
#pragma once

#include <string>

namespace tavelin {

/// For example "Debian GNU/Linux 12 (bookworm), Linux 6.1.0-13-amd64". Any thread.
[[nodiscard]] std::string operatingSystemVersion();

} // namespace tavelin
