/// Text from outside that may not be valid UTF-8.
#pragma once

#include <string>
#include <string_view>

namespace tavelin {

/// Whether the whole text is well-formed (no overlong forms, no surrogates, nothing past U+10FFFF).
[[nodiscard]] bool isUTF8(std::string_view text) noexcept;

/// The text with U+FFFD in place of every invalid sequence (one for each maximal part of a
/// well-formed sequence, or else for each byte); valid text comes back unchanged.
[[nodiscard]] std::string repairUTF8(std::string_view text);

/// The first `count` characters (code points) of valid UTF-8.
[[nodiscard]] std::string_view firstCharacters(std::string_view text, std::size_t count);

} // namespace tavelin
