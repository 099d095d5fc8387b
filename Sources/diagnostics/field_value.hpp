/// What an event says: named values without null. See platform/value.hpp for what values are
/// made of.
#pragma once

#include "platform/value.hpp"

namespace tavelin {

using FieldValue = Value;
using Fields = Value::Map;

} // namespace tavelin
