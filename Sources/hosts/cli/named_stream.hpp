/// Paths to named streams: "file:stream" names the stream "stream" of the file "file".
///
/// An item that has the whole text as its name comes first, as names on a volume may have colons.
/// One thread at a time. All throw as valueOf() does.
#pragma once

#include "hosting/paths.hpp"
#include "hosts/cli/json.hpp"

#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tavelin::cli {

/// What a path leads to: an item, or one of its streams.
struct Named {
    Found found;                       ///< the item
    std::optional<std::string> stream; ///< its stream, which is there
    std::uint64_t size = 0;            ///< of the stream or the item, bytes
};

/// The text before and behind the last colon of a path's last component. Absent where one of them
/// is empty or there is none.
[[nodiscard]] std::optional<std::pair<std::string, std::string>>
splitStream(const std::string& path);

/// Finds the item, or the stream of an item, that a path names. `last` is for an item; a link
/// before a colon is followed. Throws ItemFailure where there is neither.
[[nodiscard]] Named resolveNamed(VolumeClient& volume, const std::string& path,
                                 LastLink last = LastLink::follow);

/// The item of "file:stream" where nothing has that name and "file" is there, whether it has the
/// stream or not.
[[nodiscard]] std::optional<Found> ownerOfStream(VolumeClient& volume, const std::string& path);

/// All bytes of a stream: at most 64 MiB.
[[nodiscard]] std::vector<std::byte> readStream(VolumeClient& volume, const Named& named,
                                                const std::string& path);

/// A stream as docs/json.md describes it.
[[nodiscard]] JSONObject streamObject(const std::string& path, const std::string& name,
                                      std::uint64_t size);

} // namespace tavelin::cli
