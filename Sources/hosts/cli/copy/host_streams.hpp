/// Named streams on the host: extended attributes of the "user." namespace.
#pragma once

#include <span>
#include <string>
#include <vector>

namespace tavelin::cli {

struct HostStream {
    std::string name; ///< without "user."
    std::vector<char> value;
};

/// Those of an open file or directory, none where its file system has no such attributes. Throws
/// ItemFailure or Failure; `path` is what messages call the file.
[[nodiscard]] std::vector<HostStream> readHostStreams(int descriptor, const std::string& path);

/// False when the file system has no such attributes or not enough room for this one. Throws as
/// above for other errors.
[[nodiscard]] bool writeHostStream(int descriptor, const std::string& name,
                                   std::span<const std::byte> value, const std::string& path);

} // namespace tavelin::cli
