/// Records as JSON text.
#pragma once

#include "diagnostics/field_value.hpp"

#include <optional>
#include <string>

namespace tavelin {

/// The cleaned record as one JSON object with sorted keys and a line feed at its end; absent when
/// JSON cannot express it.
[[nodiscard]] std::optional<std::string> jsonLine(const Fields& record);

} // namespace tavelin
