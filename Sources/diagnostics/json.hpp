/// JSON (RFC 8259): the event log's lines, and texts.
///
/// The library's headers take longer to compile than most of what uses them, so json.cpp alone
/// includes them. All functions are pure and may be called from any thread. They throw
/// std::bad_alloc.
#pragma once

#include "diagnostics/field_value.hpp"

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tavelin {

/// The cleaned record as one JSON object with sorted keys and a line feed at its end; absent when
/// JSON cannot express it: a number is infinite or not a number, text is not UTF-8, or a date was
/// not cleaned.
[[nodiscard]] std::optional<std::string> jsonLine(const Fields& record);

/// The members of an object in the order of their keys: strings as they are, other values as JSON.
/// Absent when the text is no JSON object.
using JSONMembers = std::vector<std::pair<std::string, std::string>>;
[[nodiscard]] std::optional<JSONMembers> jsonMembers(std::string_view text);

/// A text as a JSON string, with its quotation marks. What is not UTF-8 becomes U+FFFD. Everything
/// but ASCII is escaped when `onlyASCII` is set.
[[nodiscard]] std::string jsonText(std::string_view text, bool onlyASCII);

} // namespace tavelin
