#include "extension/text.hpp"

#include "extension/memory.hpp"
#include "platform/utf8.hpp"

namespace tavelin {

namespace {

NSString *stringFrom(std::string_view text) {
    return [[NSString alloc] initWithBytes:text.data()
                                    length:text.size()
                                  encoding:NSUTF8StringEncoding];
}

} // namespace

NSString *toNSString(std::string_view text) {
    NSString *string = stringFrom(text);
    return made(string != nil ? string : stringFrom(repairUTF8(text)));
}

std::string toText(NSString *text) {
    const char *bytes = text.UTF8String;
    return bytes != nullptr ? std::string(bytes) : std::string();
}

} // namespace tavelin
