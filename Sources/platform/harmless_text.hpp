/// Names and other foreign text as a terminal may have it: nothing in it drives the terminal or
/// fakes a line. Pure functions, for any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tavelin {

/// One character of UTF-8, or one byte that is not part of one.
struct Character {
    std::string_view bytes;       ///< never empty
    std::optional<char32_t> code; ///< absent for an invalid byte
};

/// The first one of a text that is not empty.
[[nodiscard]] Character firstCharacter(std::string_view text);

/// The text with control characters, line separators, direction marks and bytes that are not UTF-8
/// written as \n, \t, \x1b and the like, so that no name can drive a terminal or fake a line.
/// A backslash stays as it is unless something else needed one, when it is doubled.
[[nodiscard]] std::string escaped(std::string_view text);

} // namespace tavelin
