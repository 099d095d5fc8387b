#include "extension/information.hpp"

#include "extension/text.hpp"

namespace tavelin {

InformationDictionary toInformation(NSDictionary *dictionary) {
    InformationDictionary result;
    for (id key in dictionary) {
        if (![key isKindOfClass:[NSString class]]) {
            continue;
        }
        id entry = [dictionary objectForKey:key];
        if ([entry isKindOfClass:[NSString class]]) {
            result.insert_or_assign(toText(static_cast<NSString *>(key)),
                                    toText(static_cast<NSString *>(entry)));
        } else if ([entry isKindOfClass:[NSDictionary class]]) {
            result.insert_or_assign(toText(static_cast<NSString *>(key)),
                                    toInformation(static_cast<NSDictionary *>(entry)));
        }
    }
    return result;
}

} // namespace tavelin
