/// The fields of an event: named values without null. The names "t", "ev" and "pid" belong to the
/// event log, which overwrites them. See platform/value.hpp for the kinds of values.
#pragma once

#include "platform/value.hpp"

namespace tavelin {

using FieldValue = Value;
using Fields = Value::Map;

} // namespace tavelin
