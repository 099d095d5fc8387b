/// The system log, which holds lines for people. On macOS it is the unified log. Elsewhere it is
/// syslog, and standard error as well while that is a terminal.
///
/// Modules write through diagnostics/log.hpp, which adds subsystem and category.
#pragma once

#include <memory>
#include <optional>
#include <string_view>

namespace tavelin {

/// In rising order of importance: options compare levels.
enum class LogLevel { kInfo, kError };

/// Shared by all threads of the process. Implementations synchronise themselves and take no lock
/// of ours, so any lock may be held during a call.
class SystemLog {
  public:
    virtual ~SystemLog() = default;

    /// Whether a line of this level would be kept anywhere. Callers ask before they build a line
    /// that costs much. The answer may change between two calls.
    [[nodiscard]] virtual bool isEnabled(LogLevel level, std::string_view subsystem,
                                         std::string_view category) = 0;

    /// Writes one line (without a line feed at its end). All of it is meant to be public: nothing
    /// is redacted. Failures are dropped, because there is nowhere left to report them. Any thread.
    virtual void write(LogLevel level, std::string_view subsystem, std::string_view category,
                       std::string_view message) noexcept = 0;
};

/// The lowest level that each destination of the POSIX log takes. An absent level turns the
/// destination off.
struct PosixLogOptions {
    /// For syslog, facility LOG_DAEMON.
    std::optional<LogLevel> syslog = LogLevel::kInfo;
    /// For standard error while that is a terminal.
    std::optional<LogLevel> terminal = LogLevel::kInfo;
    /// The descriptor taken for standard error. Stays the caller's; tests pass a pseudoterminal.
    int descriptor = 2;
};

/// The log of POSIX systems. Control characters in messages are escaped, so that no name on a
/// volume can forge a line or drive a terminal.
[[nodiscard]] std::shared_ptr<SystemLog> makePosixSystemLog(PosixLogOptions options = {});

} // namespace tavelin
