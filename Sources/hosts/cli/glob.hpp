/// Patterns for paths on a volume: 'Photos/**/*.jpg'.
///
/// "*" stands for any characters of a name, "?" for one character, "[a-z]" and "[!a-z]" for one of
/// a set, and "**" as a whole component for any number of directories, none included. A set that is
/// not closed is an ordinary "[". Letters of ASCII match in either case, as names on the volume do.
/// All functions are pure and may be called from any thread.
#pragma once

#include <string_view>

namespace tavelin::cli {

/// Whether a name without "/" matches one component of a pattern.
[[nodiscard]] bool matchesName(std::string_view pattern, std::string_view name);

/// Whether a path matches. A pattern without "/" is compared with the last component, wherever it
/// is; any other one with the whole path from the root, each with or without a leading "/".
[[nodiscard]] bool matchesPath(std::string_view pattern, std::string_view path);

} // namespace tavelin::cli
