/// The process's logger: lines for people, in the system log, under the extension's bundle
/// identifier and the category "fs". Everything written is public: nothing is redacted, so a line
/// holds no secrets. Events that programs read back go to diagnostics/event_log.hpp.
#pragma once

#include "platform/system_log.hpp"

#include <string>
#include <string_view>
#include <utility>

namespace tavelin {

/// Writes to the system log in force at each call. Immutable; any thread; never fails.
class Logger {
  public:
    /// `subsystem` is a bundle identifier, `category` a word that log viewers filter by.
    Logger(std::string subsystem, std::string category)
        : subsystem_(std::move(subsystem)), category_(std::move(category)) {}

    /// Whether lines of this level are kept. Callers ask before they build a line that costs much.
    [[nodiscard]] bool isEnabled(LogLevel level) const;

    /// Normal events. The text is written as it stands: format it with fmt::format.
    void info(std::string_view text) const;

    /// Failures. The text names the operation and the error.
    void error(std::string_view text) const;

  private:
    std::string subsystem_;
    std::string category_;
};

/// The process's logger. Lives until the process ends.
[[nodiscard]] const Logger& log();

} // namespace tavelin
