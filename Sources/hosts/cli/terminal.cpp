#include "hosts/cli/terminal.hpp"

#include "hosts/cli/failure.hpp"
#include "hosts/cli/text.hpp"
#include "platform/assert.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sys/ioctl.h>
#include <unistd.h>
#include <vector>

namespace tavelin::cli {
namespace {

constexpr std::size_t kDefaultColumns = 80;

/// People see no more than ten pictures a second, and a terminal is slower than the work.
constexpr std::chrono::milliseconds kDrawPause(100);

// Carriage return, then ECMA-48 EL: erase to the end of the line.
constexpr const char* kEraseLine = "\r\x1b[K";

std::size_t terminalColumns() {
    winsize size{};
    // Asked for each line, because the user may resize the window. Serial terminals answer 0.
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) {
        return kDefaultColumns;
    }
    return size.ws_col;
}

/// A variable of the environment; empty when it is not set.
std::string_view variable(const char* name) {
    const char* const value = std::getenv(name); // NOLINT(concurrency-mt-unsafe)
    return value == nullptr ? "" : value;
}

/// Whether the terminal shows escape sequences as text, as in an editor's window.
bool isDumbTerminal() {
    return variable("TERM") == "dumb";
}

bool wantsColour() {
    // Nothing in this process changes its environment.
    static const bool wanted =
        isOutputTerminal() && !isDumbTerminal() && variable("NO_COLOR").empty();
    return wanted;
}

/// Whether standard error shows a line that is drawn again and again.
bool showsProgress() {
    return isatty(STDERR_FILENO) == 1 && !isDumbTerminal();
}

/// Writes to standard error. Errors are dropped: no other place is left to report them.
void tellOrNot(const std::string& text) {
    static_cast<void>(std::fwrite(text.data(), 1, text.size(), stderr));
    static_cast<void>(std::fflush(stderr));
}

/// Throws for errno, so nothing may come between the failed call and this one.
[[noreturn]] void throwOutputFailure() {
    throw Failure(explainHost("standard output", errno));
}

} // namespace

bool isOutputTerminal() noexcept {
    static const bool terminal = isatty(STDOUT_FILENO) == 1;
    return terminal;
}

std::string shown(std::string_view name) {
    return isOutputTerminal() ? escaped(name) : std::string(name);
}

std::string painted(std::string_view text, Colour colour) {
    if (!wantsColour() || colour == Colour::plain) {
        return std::string(text);
    }
    // SGR parameters: 1 bold, 34 blue, 36 cyan, 2 faint.
    const char* const code = colour == Colour::strong      ? "1"
                             : colour == Colour::directory ? "1;34"
                             : colour == Colour::link      ? "36"
                                                           : "2";
    return fmt::format("\x1b[{}m{}\x1b[0m", code, text);
}

void print(std::string_view text) {
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) {
        throwOutputFailure();
    }
}

void flushOutput() {
    if (std::fflush(stdout) != 0) {
        throwOutputFailure();
    }
}

void flushNowAndThen() {
    static std::chrono::steady_clock::time_point last;
    const auto now = std::chrono::steady_clock::now();
    if (now - last >= kDrawPause) {
        last = now;
        flushOutput();
    }
}

void complain(std::string_view message) {
    // Keeps the two streams in the order of events. A failure is not reported here
    // but by print() and flushOutput().
    static_cast<void>(std::fflush(stdout));
    tellOrNot(fmt::format("tavelin: {}\n", message));
}

ItemCount::ItemCount(bool quiet) : shown_(!quiet && showsProgress()) {}

void ItemCount::add(std::uint64_t items) {
    items_ += items;
    const auto now = std::chrono::steady_clock::now();
    if (shown_ && now - last_ >= kDrawPause) {
        last_ = now;
        drawn_ = true;
        static_cast<void>(std::fflush(stdout)); // as in complain()
        tellOrNot(fmt::format("\r{}\x1b[K",
                              fitting(fmt::format("{} items", items_), terminalColumns() - 1)));
    }
}

void ItemCount::clear() {
    if (drawn_) {
        tellOrNot(kEraseLine);
        drawn_ = false;
    }
}

ProgressBar::ProgressBar(bool quiet) : shown_(!quiet && showsProgress()) {}

void ProgressBar::begin(std::string_view name) {
    if (shown_) {
        name_ = escaped(name);
        draw();
    }
}

void ProgressBar::advance(std::uint64_t bytes) {
    done_ += bytes;
    if (shown_) {
        draw();
    }
}

void ProgressBar::clear() {
    if (drawn_) {
        tellOrNot(kEraseLine);
        drawn_ = false;
    }
}

std::string ProgressBar::line(std::size_t columns) const {
    constexpr std::size_t kBarWidth = 20;
    // A file that grows while it is copied takes the work past the total.
    const double part =
        total_ == 0 ? 0 : std::min(1.0, static_cast<double>(done_) / static_cast<double>(total_));
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    const double speed = seconds > 0 ? static_cast<double>(done_) / seconds : 0;
    TAVELIN_ASSERT(part >= 0 && part <= 1);
    const auto full = static_cast<std::size_t>(part * kBarWidth);
    std::vector<std::string> fields;
    if (total_ > 0) {
        fields.push_back(
            fmt::format("[{}{}]", std::string(full, '#'), std::string(kBarWidth - full, '.')));
        fields.push_back(fmt::format("{:3.0f} %", part * 100));
    }
    fields.push_back(total_ > 0 ? fmt::format("{} of {}", humanSize(done_), humanSize(total_))
                                : humanSize(done_));
    fields.push_back(fmt::format("{}/s", humanSize(static_cast<std::uint64_t>(speed))));
    // The first second says too little about the speed.
    if (total_ > done_ && done_ > 0 && seconds >= 1) {
        const auto left = static_cast<std::uint64_t>(static_cast<double>(total_ - done_) / speed);
        fields.push_back(
            fmt::format("{}:{:02}:{:02} left", left / 3600, left / 60 % 60, left % 60));
    }
    // A wrapped line could not be erased again, so what does not fit is left out. All fields are
    // ASCII but the name.
    std::string result;
    for (const std::string& field : fields) {
        if (result.size() + field.size() <= columns) {
            result += field + "  ";
        }
    }
    return result + fitting(name_, columns > result.size() ? columns - result.size() : 0);
}

void ProgressBar::draw() {
    const auto now = std::chrono::steady_clock::now();
    if (now - last_ < kDrawPause) {
        return;
    }
    last_ = now;
    // Some terminals wrap as soon as the last column is written.
    tellOrNot(
        fmt::format("\r{}\x1b[K", fitting(line(terminalColumns() - 1), terminalColumns() - 1)));
    drawn_ = true;
}

} // namespace tavelin::cli
