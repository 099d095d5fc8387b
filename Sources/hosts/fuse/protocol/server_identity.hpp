/// How a mount says which process serves it. An attribute of the mount's root that no file has is
/// answered by the server itself. Any thread.
#pragma once

#include <string>
#include <string_view>
#include <sys/types.h>

namespace tavelin::fusehost {

/// In the "system." namespace, which no file of a volume can have names in.
inline constexpr const char* kServerAttribute = "system.tavelin_server";

/// The attribute's value: the calling process's number and the time when it started.
[[nodiscard]] std::string serverIdentity();

/// The process that a value names; 0 when there is no such process, or another has the number, as
/// in another process namespace.
[[nodiscard]] pid_t serverOf(std::string_view identity);

} // namespace tavelin::fusehost
