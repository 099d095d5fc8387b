/// Standard output and standard error: what goes there, and how, when a person is watching.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace tavelin::cli {

/// Whether standard output is a terminal.
[[nodiscard]] bool isOutputTerminal() noexcept;

/// A name as it goes to standard output: escaped on a terminal, its own bytes elsewhere.
[[nodiscard]] std::string shown(std::string_view name);

enum class Colour { plain, strong, directory, link, faint };
/// The text in a colour, on a terminal and unless NO_COLOR is set; elsewhere as it is.
[[nodiscard]] std::string painted(std::string_view text, Colour colour);

/// Writes bytes to standard output. Throws Failure when they cannot be written.
void print(std::string_view text);
/// Makes sure that everything printed has been written. Throws Failure.
void flushOutput();
/// One line on standard error, "tavelin: …".
void complain(std::string_view message);

/// The progress of long work on one line of standard error, while that is a terminal; elsewhere
/// nothing is printed. The line is cleared when the bar goes, or for other output by clear().
class ProgressBar {
  public:
    /// `quiet` for a bar that stays away even from a terminal.
    explicit ProgressBar(bool quiet);
    ~ProgressBar() { clear(); }
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    /// Whether anybody sees it: counting what is to be done is worth the time only then.
    [[nodiscard]] bool isShown() const noexcept { return shown_; }
    void expect(std::uint64_t bytes) noexcept { total_ += bytes; }
    /// Goes on with a file of this name.
    void begin(std::string_view name);
    void advance(std::uint64_t bytes);
    void clear();

  private:
    void draw();

    const bool shown_;
    bool drawn_ = false;
    std::uint64_t total_ = 0;
    std::uint64_t done_ = 0;
    std::string name_;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point last_{};
};

} // namespace tavelin::cli
