/// The system log: where lines for people go. Outside macOS it is syslog, and standard error as
/// well while that is a terminal.
#pragma once

#include <memory>
#include <optional>
#include <string_view>

namespace tavelin {

enum class LogLevel { kInfo, kError };

class SystemLog {
  public:
    virtual ~SystemLog() = default;

    /// Whether a line of this level would be kept anywhere; ask before building a costly one.
    [[nodiscard]] virtual bool isEnabled(LogLevel level, std::string_view subsystem,
                                         std::string_view category) = 0;

    /// Writes one line (without a line feed at its end). All of it is meant to be public. Failures
    /// are dropped: there is nowhere left to report them. Any thread.
    virtual void write(LogLevel level, std::string_view subsystem, std::string_view category,
                       std::string_view message) noexcept = 0;
};

/// Where lines go, by level; absent for nowhere.
struct PosixLogOptions {
    /// The least level that goes to syslog.
    std::optional<LogLevel> syslog = LogLevel::kInfo;
    /// The least level that goes to standard error while that is a terminal.
    std::optional<LogLevel> terminal = LogLevel::kInfo;
    /// The descriptor taken for standard error.
    int descriptor = 2;
};

/// The log of POSIX systems. Control characters in messages are escaped, so that no name on a
/// volume can forge a line or drive a terminal.
[[nodiscard]] std::shared_ptr<SystemLog> makePosixSystemLog(PosixLogOptions options = {});

} // namespace tavelin
