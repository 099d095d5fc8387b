/// Event records as JSON text (RFC 8259), one object per line.
#pragma once

#include "diagnostics/field_value.hpp"

#include <optional>
#include <string>

namespace tavelin {

/// The cleaned record as one JSON object with sorted keys and a line feed at its end; absent when
/// JSON cannot express it: a number is infinite or not a number, text is not UTF-8, or a date was
/// not cleaned. Pure; any thread. Throws std::bad_alloc.
[[nodiscard]] std::optional<std::string> jsonLine(const Fields& record);

} // namespace tavelin
