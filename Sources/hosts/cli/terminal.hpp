/// Writing to standard output and standard error, for people at a terminal and for programs.
///
/// Standard output carries a command's result and is buffered by stdio. Its errors are failures of
/// the command. Standard error carries messages and progress, and its errors are dropped. All
/// functions belong to the process's only thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace tavelin::cli {

/// Whether standard output is a terminal. Asked once per process.
[[nodiscard]] bool isOutputTerminal() noexcept;

/// The form of a name for standard output. It is escaped on a terminal, which it could drive
/// otherwise. Elsewhere its bytes are unchanged, so that programs can use it.
[[nodiscard]] std::string shown(std::string_view name);

/// The styles of the output. Their codes are those of ECMA-48 (SGR).
enum class Colour { plain, strong, directory, link, faint };
/// The text in a colour when standard output is a terminal that has them and $NO_COLOR is not set
/// or empty; otherwise unchanged. The text must be shown() already.
[[nodiscard]] std::string painted(std::string_view text, Colour colour);

/// Writes bytes to standard output's buffer. Throws Failure when they cannot be written. Success is
/// certain only after flushOutput().
void print(std::string_view text);
/// Writes the buffer out. Throws Failure when that fails, for example on a full disk.
void flushOutput();
/// The same where the last time is a while ago: for output that is on its way to a reader.
void flushNowAndThen();
/// Writes one line to standard error, "tavelin: …". Names in it are escaped().
void complain(std::string_view message);

/// How many items long work has been through that prints nothing meanwhile: on one line of standard
/// error, while that is a terminal, from a tenth of a second on. Used as a ProgressBar is.
class ItemCount {
  public:
    /// A `quiet` count is not shown on a terminal either.
    explicit ItemCount(bool quiet = false);
    ~ItemCount() { clear(); }
    ItemCount(const ItemCount&) = delete;
    ItemCount& operator=(const ItemCount&) = delete;

    void add(std::uint64_t items = 1);
    /// Removes the line from the terminal. The next add() draws it again.
    void clear();

  private:
    const bool shown_;
    bool drawn_ = false;
    std::uint64_t items_ = 0;
    std::chrono::steady_clock::time_point last_ = std::chrono::steady_clock::now();
};

/// The progress of long work on one line of standard error, while that is a terminal; elsewhere
/// nothing is printed. Amounts are bytes. The destructor clears the line. Other output to a
/// terminal must be preceded by clear(), or it would begin behind the bar.
class ProgressBar {
  public:
    /// A `quiet` bar is not shown on a terminal either.
    explicit ProgressBar(bool quiet);
    ~ProgressBar() { clear(); }
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    /// Whether the bar is drawn at all. Callers count the work beforehand only then.
    [[nodiscard]] bool isShown() const noexcept { return shown_; }
    /// Adds to the total. It may grow while the work goes on.
    void expect(std::uint64_t bytes) noexcept { total_ += bytes; }
    /// Shows this name from now on. The name is escaped here.
    void begin(std::string_view name);
    /// Adds to the work done, which may pass the total: a file may grow while it is copied.
    void advance(std::uint64_t bytes);
    /// Removes the line from the terminal. The next advance() draws it again.
    void clear();

  private:
    /// The bar, amounts, speed, time left and name, as far as they fit in this many columns.
    [[nodiscard]] std::string line(std::size_t columns) const;
    /// Draws at most ten times a second: a terminal is slower than the work.
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
