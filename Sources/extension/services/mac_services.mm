// The services that Foundation answers, and all of them together.
#import <Foundation/Foundation.h>

#include "extension/services/mac_services.hpp"

#include "extension/information.hpp"
#include "extension/text.hpp"

namespace tavelin {

namespace {

std::optional<std::filesystem::path> containerOf(const std::string &group) {
    @autoreleasepool {
        // macOS answers a URL even for a group this process does not belong to; the event log
        // then finds the directory closed and drops what it is given.
        NSURL *url = [NSFileManager.defaultManager
            containerURLForSecurityApplicationGroupIdentifier:toNSString(group)];
        if (url.path == nil) {
            return std::nullopt;
        }
        return std::filesystem::path(toText(url.path));
    }
}

std::string systemVersion() {
    @autoreleasepool {
        return toText(NSProcessInfo.processInfo.operatingSystemVersionString);
    }
}

InformationDictionary mainBundleDictionary() {
    @autoreleasepool {
        return toInformation(NSBundle.mainBundle.infoDictionary);
    }
}

} // namespace

Services macServices() {
    return {mainBundleDictionary,      containerOf,      systemVersion, mac::dispatchTimer,
            mac::globalUtilityQueue(), mac::unifiedLog()};
}

} // namespace tavelin
