#include "diagnostics/log.hpp"

#include "platform/product.hpp"
#include "platform/services.hpp"

namespace tavelin {

// The services are asked for at each call: they may be replaced while the logger exists.

bool Logger::isEnabled(LogLevel level) const {
    return services()->systemLog->isEnabled(level, subsystem_, category_);
}

void Logger::info(std::string_view text) const {
    services()->systemLog->write(LogLevel::kInfo, subsystem_, category_, text);
}

void Logger::error(std::string_view text) const {
    services()->systemLog->write(LogLevel::kError, subsystem_, category_, text);
}

const Logger& log() {
    // Never destroyed: threads may still log while the process exits.
    static const Logger& logger = *new Logger(product::kExtensionBundleID, "fs");
    return logger;
}

} // namespace tavelin
