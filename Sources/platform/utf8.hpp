/// UTF-8 of unknown origin: validation, repair and truncation.
///
/// Well-formed means as in the Unicode Standard, table 3-7: no overlong forms, no surrogates,
/// nothing past U+10FFFF. All functions are pure and may be called from any thread.
#pragma once

#include <string>
#include <string_view>

namespace tavelin {

/// Whether the whole text is well-formed. The empty text is.
[[nodiscard]] bool isUTF8(std::string_view text) noexcept;

/// Whether the text is well-formed but for unpaired surrogates, which stand as three bytes each.
/// Names on NTFS volumes are any UTF-16 units, and this is how those that are no text are written.
/// A pair that stands as two times three bytes would be a second spelling of a character, and is
/// refused.
[[nodiscard]] bool isUTF8OrSurrogates(std::string_view text) noexcept;

/// The text with U+FFFD in place of every invalid sequence (one for each maximal part of a
/// well-formed sequence, or else for each byte, as the Unicode Standard recommends). Valid text
/// comes back unchanged.
[[nodiscard]] std::string repairUTF8(std::string_view text);

/// The first `count` characters (code points) of valid UTF-8; all of it when it has fewer. The
/// result points into `text`.
[[nodiscard]] std::string_view firstCharacters(std::string_view text, std::size_t count);

} // namespace tavelin
