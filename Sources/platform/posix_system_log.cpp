#include "platform/product.hpp"
#include "platform/system_log.hpp"

#include <string>
#include <syslog.h>
#include <unistd.h>

namespace tavelin {

namespace {

static_assert(LogLevel::kInfo < LogLevel::kError, "the options compare levels");

/// The text with control characters as \xNN. Bytes above 0x7f stay, as they are parts of UTF-8.
std::string escaped(std::string_view text) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string result;
    result.reserve(text.size());
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7f) {
            result += "\\x";
            result += kDigits[byte >> 4];
            result += kDigits[byte & 0xf];
        } else {
            result += c;
        }
    }
    return result;
}

class PosixSystemLog final : public SystemLog {
  public:
    explicit PosixSystemLog(PosixLogOptions options) : options_(options) {
        // openlog() keeps the pointer it is given. The name is a constant.
        openlog(product::kShortName, LOG_PID, LOG_DAEMON);
    }

    bool isEnabled(LogLevel level, std::string_view, std::string_view) override {
        return goesToSyslog(level) || goesToTerminal(level);
    }

    void write(LogLevel level, std::string_view subsystem, std::string_view category,
               std::string_view message) noexcept override {
        try {
            const std::string line = escaped(message);
            if (goesToSyslog(level)) {
                // The message is an argument and not the format: it may contain '%'.
                syslog(priority(level), "[%.*s:%.*s] %s", static_cast<int>(subsystem.size()),
                       subsystem.data(), static_cast<int>(category.size()), category.data(),
                       line.c_str());
            }
            if (goesToTerminal(level)) {
                writeToTerminal(std::string(product::kShortName) + ": " + line + "\n");
            }
        } catch (const std::bad_alloc&) {
            // A line that there is no memory for is dropped, as the contract says.
        }
    }

  private:
    static int priority(LogLevel level) { return level == LogLevel::kError ? LOG_ERR : LOG_INFO; }

    bool goesToSyslog(LogLevel level) const { return options_.syslog && level >= *options_.syslog; }

    /// Asks at every line, because a daemon may replace its standard error after the log was made.
    bool goesToTerminal(LogLevel level) const {
        return options_.terminal && level >= *options_.terminal && isatty(options_.descriptor) == 1;
    }

    void writeToTerminal(std::string_view line) const {
        while (!line.empty()) {
            const ssize_t written = ::write(options_.descriptor, line.data(), line.size());
            if (written <= 0) {
                return; // a terminal that went away: the line is dropped
            }
            line.remove_prefix(static_cast<std::size_t>(written));
        }
    }

    const PosixLogOptions options_;
};

} // namespace

std::shared_ptr<SystemLog> makePosixSystemLog(PosixLogOptions options) {
    return std::make_shared<PosixSystemLog>(options);
}

} // namespace tavelin
