// The unified log. What reaches it is meant for people and holds no secrets, so all of it is
// marked public; without the mark the log would show "<private>" in its place.
#import <os/log.h>

#include "extension/services/mac_services.hpp"

#include <string>

namespace tavelin::mac {

namespace {

os_log_type_t typeFor(LogLevel level) {
    return level == LogLevel::kError ? OS_LOG_TYPE_ERROR : OS_LOG_TYPE_INFO;
}

/// The system keeps one object per pair and hands it out again, so nothing is cached here.
os_log_t logFor(std::string_view subsystem, std::string_view category) {
    return os_log_create(std::string(subsystem).c_str(), std::string(category).c_str());
}

class UnifiedLog final : public SystemLog {
  public:
    bool isEnabled(LogLevel level, std::string_view subsystem, std::string_view category) override {
        return os_log_type_enabled(logFor(subsystem, category), typeFor(level));
    }

    void write(LogLevel level, std::string_view subsystem, std::string_view category,
               std::string_view message) noexcept override {
        try {
            os_log_with_type(logFor(subsystem, category), typeFor(level), "%{public}s",
                             std::string(message).c_str());
        } catch (const std::bad_alloc &) {
            // A line that there is no memory for is dropped, as the contract says.
        }
    }
};

} // namespace

std::shared_ptr<SystemLog> unifiedLog() {
    return std::make_shared<UnifiedLog>();
}

} // namespace tavelin::mac
