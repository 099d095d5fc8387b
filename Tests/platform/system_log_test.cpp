#include "platform/system_log.hpp"

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <fcntl.h>
#include <stdexcept>
#include <string>
#include <termios.h>
#include <unistd.h>

namespace tavelin {
namespace {

class Terminal {
  public:
    Terminal() {
        reader_ = ::posix_openpt(O_RDWR | O_NOCTTY);
        if (reader_ < 0 || ::grantpt(reader_) != 0 || ::unlockpt(reader_) != 0) {
            throw std::runtime_error("no pseudo-terminal");
        }
        terminal_ = ::open(::ptsname(reader_), O_RDWR | O_NOCTTY);
        termios mode{};
        ::tcgetattr(terminal_, &mode);
        ::cfmakeraw(&mode);
        ::tcsetattr(terminal_, TCSANOW, &mode);
    }
    ~Terminal() {
        ::close(reader_);
        ::close(terminal_);
    }
    int descriptor() const { return terminal_; }

    std::string readLine() const {
        std::string line;
        for (char c = 0; c != '\n' && ::read(reader_, &c, 1) == 1;) {
            line += c;
        }
        return line;
    }

  private:
    int reader_ = -1;
    int terminal_ = -1;
};

TEST(SystemLog, NothingInALineCanForgeAnotherOrDriveTheTerminal) {
    const Terminal terminal;
    const auto log = makePosixSystemLog({std::nullopt, LogLevel::kInfo, terminal.descriptor()});
    log->write(LogLevel::kInfo, "s", "fs", "name=a\nb\x1b[2J\x7f %s \u00e9");
    EXPECT_EQ(terminal.readLine(), "tavelin: name=a\\x0ab\\x1b[2J\\x7f %s \u00e9\n");
}

TEST(SystemLog, TheTerminalGetsOnlyTheLevelsAskedFor) {
    const Terminal terminal;
    const auto log = makePosixSystemLog({std::nullopt, LogLevel::kError, terminal.descriptor()});
    log->write(LogLevel::kInfo, "s", "fs", "quiet");
    log->write(LogLevel::kError, "s", "fs", "loud");
    EXPECT_EQ(terminal.readLine(), "tavelin: loud\n");
    EXPECT_FALSE(log->isEnabled(LogLevel::kInfo, "s", "fs"));
    EXPECT_TRUE(log->isEnabled(LogLevel::kError, "s", "fs"));
}

TEST(SystemLog, ADescriptorThatIsNoTerminalGetsNothing) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe(ends.data()), 0);
    makePosixSystemLog({std::nullopt, LogLevel::kInfo, ends[1]})
        ->write(LogLevel::kError, "s", "fs", "text");
    ::close(ends[1]);
    char byte = 0;
    EXPECT_EQ(::read(ends[0], &byte, 1), 0);
    ::close(ends[0]);
}

} // namespace
} // namespace tavelin
