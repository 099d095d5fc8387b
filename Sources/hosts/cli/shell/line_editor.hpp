/// Reads the lines that a person types at a terminal, with history and completion.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavelin::cli {

/// Owns the terminal's state while a line is read, and the history of this shell, which is kept
/// nowhere else. Reads from standard input, which is a terminal. One thread.
class LineEditor {
  public:
    /// The words that may stand in place of the last one of a line up to the cursor, as they are to
    /// be typed. Throws nothing.
    using Complete = std::function<std::vector<std::string>(std::string_view line)>;

    /// `complete` is called while a line is read. Throws Failure where the terminal cannot be used.
    explicit LineEditor(Complete complete);
    ~LineEditor();
    LineEditor(const LineEditor&) = delete;
    LineEditor& operator=(const LineEditor&) = delete;

    /// The next line; absent at the end of the input. Ctrl-C gives up what is typed and begins
    /// anew. Throws Interruption for any other signal that arrives meanwhile.
    [[nodiscard]] std::optional<std::string> read(const std::string& prompt);

  private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace tavelin::cli
