/// The main bundle's information dictionary: what the product is called, its version, and where
/// its shared container is. On macOS it is the bundle's Info.plist; elsewhere the same keys are
/// filled from platform/product.hpp, so both have one source. Read-only; any thread.
#pragma once

#include "platform/value.hpp"

#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

namespace tavelin {

using InformationDictionary = Value::Map;

[[nodiscard]] InformationDictionary mainInformationDictionary();

/// The text at the end of a path of keys through nested dictionaries; absent when a key is
/// missing or the entry is not text.
[[nodiscard]] std::optional<std::string>
informationText(const InformationDictionary& dictionary,
                std::initializer_list<std::string_view> keys);

} // namespace tavelin
