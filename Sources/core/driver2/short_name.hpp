/// What the product is called on this system. Pure; any thread.
#pragma once

#include "platform/information_dictionary.hpp"
#include "platform/product.hpp"

#include <string>
#include <string_view>

namespace tavelin::Driver2 {

/// The file system's short name and the default personality word.
inline constexpr std::string_view kShortName = product::kShortName;
/// The bundle identifier of the file-system extension.
inline constexpr std::string_view kExtensionBundleID = product::kExtensionBundleID;

/// "FSShortName" in "EXAppExtensionAttributes" of an information dictionary; kShortName where that
/// is absent, empty or not text.
[[nodiscard]] std::string shortName(const InformationDictionary* info);

} // namespace tavelin::Driver2
