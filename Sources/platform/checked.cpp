#include "platform/checked.hpp"

#include "platform/product.hpp"
#include "platform/services.hpp"

#include <cstdio>
#include <cstdlib>

namespace tavelin {

void fatal(std::string_view message) noexcept {
    static_cast<void>(std::fprintf(stderr, "%s: fatal: %.*s\n", product::kShortName,
                                   static_cast<int>(message.size()), message.data()));
    services()->systemLog->write(LogLevel::kError, product::kExtensionBundleID, "fatal", message);
    std::abort();
}

} // namespace tavelin
