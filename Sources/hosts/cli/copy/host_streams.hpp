/// Named streams on the host: extended attributes of the "user." namespace, which is the one of
/// xattr(7) that an ordinary user may write. Descriptors stay the caller's. Any thread.
#pragma once

#include <span>
#include <string>
#include <vector>

namespace tavelin::cli {

/// One stream with its whole value in memory: attributes of the host are small (64 KiB on Linux).
struct HostStream {
    std::string name; ///< without "user."
    std::vector<char> value;
};

/// The streams of an open file or directory; none where its file system has no such attributes.
/// `path` names the file in messages. Throws ItemFailure or Failure as throwHostError() does.
[[nodiscard]] std::vector<HostStream> readHostStreams(int descriptor, const std::string& path);

/// Sets or replaces one stream of an open file or directory. Returns false when the file system has
/// no such attributes or not enough room for this one; the file itself is still good then. Throws
/// as above for other errors.
[[nodiscard]] bool writeHostStream(int descriptor, const std::string& name,
                                   std::span<const std::byte> value, const std::string& path);

/// Removes one stream of an open file or directory. One that is not there is fine. Throws as above.
void removeHostStream(int descriptor, const std::string& name, const std::string& path);

} // namespace tavelin::cli
