/// The name and version of the operating system, for event records and bug reports.
#pragma once

#include <string>

namespace tavelin {

/// For example "Debian GNU/Linux 12 (bookworm), Linux 6.1.0-13-amd64". The text is for people: no
/// code may parse it or decide by it. Reads the host's files at every call. Never fails: what the
/// host does not tell is left out. Any thread.
[[nodiscard]] std::string operatingSystemVersion();

} // namespace tavelin
