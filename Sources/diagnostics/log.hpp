/// The process's logger: lines for people, in the system log, under the extension's bundle
/// identifier and the category "fs". Everything written is public.
#pragma once

#include "platform/system_log.hpp"

#include <string>
#include <string_view>
#include <utility>

namespace tavelin {

/// Writes to the system log in force at each call. Immutable; any thread; never fails.
class Logger {
  public:
    Logger(std::string subsystem, std::string category)
        : subsystem_(std::move(subsystem)), category_(std::move(category)) {}

    /// Whether lines of this level are kept; ask before building a costly one.
    [[nodiscard]] bool isEnabled(LogLevel level) const;

    /// Normal events. The text is written as it stands: format it with fmt::format.
    void info(std::string_view text) const;

    /// Failures.
    void error(std::string_view text) const;

  private:
    std::string subsystem_;
    std::string category_;
};

[[nodiscard]] const Logger& log();

} // namespace tavelin
