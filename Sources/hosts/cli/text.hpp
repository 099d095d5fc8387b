/// Text forms of names, sizes and times, for people and for programs.
///
/// All functions are pure, except that local time depends on the process's time zone. They may be
/// called from any thread.
#pragma once

#include "fskit/api/item.hpp"
#include "platform/harmless_text.hpp" // IWYU pragma: export

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

namespace tavelin::cli {

/// As much of a valid UTF-8 text as fits in this many columns of a terminal. East Asian characters
/// and emoji take two, combining marks none.
[[nodiscard]] std::string fitting(std::string_view text, std::size_t columns);

/// "1.5 MiB", "812 bytes": powers of 1024, one decimal.
[[nodiscard]] std::string humanSize(std::uint64_t bytes);

/// "2026-11-15 18:20:33", local time; with `fraction` down to the volume's 100 ns.
[[nodiscard]] std::string humanTime(const std::timespec& time, bool fraction = false);
/// "2026-11-15T18:20:33.1234567Z", for programs.
[[nodiscard]] std::string isoTime(const std::timespec& time);

/// "drwxrwxrwx", as `ls -l` has it.
[[nodiscard]] std::string modeText(fskit::FSItemType type, std::uint32_t mode);
/// "file", "directory", "symlink", "fifo", "char-device", "block-device", "socket".
[[nodiscard]] std::string_view typeName(fskit::FSItemType type) noexcept;

/// A symbolic link's target as the volume stores it. `target` is the request's answer, in which a
/// path from the volume's root is relative to the link's directory ("../../real"), because a mount
/// has another root. This returns "/real" again. Other targets come back unchanged.
[[nodiscard]] std::string shownTarget(const std::string& target,
                                      const fskit::FSItemAttributes& attributes);

/// A path's last component: "c" of "a/b/c/"; empty for the root.
[[nodiscard]] std::string lastComponent(std::string_view path);
/// A path from the root: "/a/b" of "a//./b". A ".." stays as it is. Relative paths begin at the
/// root, in a shell at its working directory.
[[nodiscard]] std::string rooted(std::string_view path);
/// A name in a directory, as a path; `directory` may be empty or end in "/".
[[nodiscard]] std::string joined(std::string_view directory, std::string_view name);

} // namespace tavelin::cli
