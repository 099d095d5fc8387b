/// The main bundle's information dictionary: the product's name, its version, and the name of its
/// app group.
///
/// On macOS it is the bundle's Info.plist. Elsewhere the same keys are filled from
/// platform/product.hpp. Both are generated from the same build settings. The keys are those of
/// Apple's bundles (CFBundleIdentifier, CFBundleShortVersionString, CFBundleVersion,
/// EXAppExtensionAttributes), and "TVLLogGroup" of our own.
#pragma once

#include "platform/value.hpp"

#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

namespace tavelin {

using InformationDictionary = Value::Map;

/// A copy of the dictionary, which does not change while the process runs. Any thread.
[[nodiscard]] InformationDictionary mainInformationDictionary();

/// The text at the end of a path of keys through nested dictionaries. Absent when a key is
/// missing, when an entry on the way is not a dictionary, when the last entry is not text, and for
/// an empty path. Pure; any thread.
[[nodiscard]] std::optional<std::string>
informationText(const InformationDictionary& dictionary,
                std::initializer_list<std::string_view> keys);

} // namespace tavelin
