#include "platform/checked.hpp"

#include "platform/assert.hpp"
#include "platform/product.hpp"
#include "platform/services.hpp"

#include <cstdio>
#include <cstdlib>

namespace tavelin {

void fatal(std::string_view message) noexcept {
    // Standard error comes first, because it needs neither memory nor a lock of ours. The process
    // ends in any case, so a failed write to it is dropped.
    static_cast<void>(std::fprintf(stderr, "%s: fatal: %.*s\n", product::kShortName,
                                   static_cast<int>(message.size()), message.data()));
    services()->systemLog->write(LogLevel::kError, product::kExtensionBundleID, "fatal", message);
    // abort() runs no destructors: an object whose invariant is broken must not flush or close.
    std::abort();
}

void assertionFailed(const char* expression, const char* file, int line) noexcept {
    // A buffer of its own: the heap may be what is broken.
    char message[512];
    static_cast<void>(
        std::snprintf(message, sizeof message, "%s:%d: not true: %s", file, line, expression));
    fatal(message);
}

} // namespace tavelin
