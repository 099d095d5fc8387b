/// What `ls`, `stat` and `find` say about an item, for people and for programs.
///
/// All functions are pure. They may be called from any thread.
#pragma once

#include "fskit/api/item.hpp"
#include "hosts/cli/json.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavelin::cli {

/// Whether Windows hides the item. Names that begin with "." are the caller's to hide.
[[nodiscard]] bool isHidden(const fskit::FSItemAttributes& attributes) noexcept;
/// "read-only", "hidden", …: what a program may ask for; empty for most items.
[[nodiscard]] std::vector<std::string> dosAttributeNames(const fskit::FSItemAttributes& attributes);
/// The kind of an item that its type does not express, such as "deduplicated". Empty for plain
/// items, and for links and devices, whose reparse tag is their type.
[[nodiscard]] std::string_view nativeKind(const fskit::FSItemAttributes& attributes);

/// Block and character devices, which have a number in place of a size.
[[nodiscard]] bool isDevice(fskit::FSItemType type) noexcept;
/// Whether items of this type have no bytes to read or copy: devices, pipes and sockets.
[[nodiscard]] bool isSpecial(fskit::FSItemType type) noexcept;
/// "5, 300", as `ls -l` has it in place of a size. `device` is major << 32 | minor.
[[nodiscard]] std::string deviceText(std::uint64_t device);

/// The item as docs/json.md describes it. `path` begins at the volume's root; `target` is a link's;
/// `shortName` is left out where it is empty.
[[nodiscard]] JSONObject itemObject(const std::string& path,
                                    const fskit::FSItemAttributes& attributes,
                                    const std::optional<std::string>& target,
                                    const std::string& shortName = {});

} // namespace tavelin::cli
