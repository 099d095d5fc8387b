/// Property lists as the platform-free code sees them.
#pragma once

#include "platform/information_dictionary.hpp"

#import <Foundation/Foundation.h>

namespace tavelin {

/// The dictionary's texts and dictionaries, at every depth, which is all that is asked of it; other
/// entries are left out. Nil gives an empty one.
[[nodiscard]] InformationDictionary toInformation(NSDictionary* dictionary);

} // namespace tavelin
