/// What the reparse tags that files and directories carry mean, for people. The tags are those of
/// Microsoft's [MS-FSCC] 2.1.2.1 and of its winnt.h.
///
/// Everything here is pure and may be called from any thread.
#pragma once

#include "core/values.hpp"

#include <cstdint>
#include <string>
#include <string_view>

namespace tavelin {

/// One kind of reparse point.
struct ReparseTag {
    std::uint32_t tag; ///< with `mask`, which of a tag's bits count
    std::uint32_t mask;
    std::string_view name;    ///< "onedrive-cloud-file": one word, for programs too
    std::string_view meaning; ///< completes "It is ..."
    std::string_view remedy;  ///< completes "In Windows, ..."; empty where nothing helps
};

/// The kind of a tag. Tags that are not known have the name "unknown".
[[nodiscard]] const ReparseTag& reparseTag(std::uint32_t tag) noexcept;

/// Why the bytes of an item with these attributes cannot be had, and what to do: "its bytes are not
/// in it: it is a file that ... (reparse tag 0x9000601a). In Windows, ...". Empty when they can.
[[nodiscard]] std::string explainRefusal(NTFSDataState state, std::uint32_t tag);

} // namespace tavelin
