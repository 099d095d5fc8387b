/// Texts across the border: UTF-8 on the C++ side, NSString on the other.
#pragma once

#import <Foundation/Foundation.h>
#include <string>
#include <string_view>

namespace tavelin {

/// The text as an NSString; one in which invalid UTF-8 has been replaced when it has any.
[[nodiscard]] NSString* toNSString(std::string_view text);

/// The text in UTF-8; empty for nil.
[[nodiscard]] std::string toText(NSString* text);

} // namespace tavelin
