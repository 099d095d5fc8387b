/// Lines of a shell, taken apart into words and put together from them.
///
/// Blanks separate words. A word may be quoted with '…', in which all characters stand for
/// themselves, or "…", in which \ takes the meaning from \ and ". Outside of quotes \ does so for
/// any character. A # at the beginning of a word makes the rest a remark. Nothing is expanded. All
/// functions are pure.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tavelin::cli {

/// The words of a line; none for a blank one. Throws Failure for a quote that is not closed.
[[nodiscard]] std::vector<std::string> wordsOf(std::string_view line);

/// The last word of a line that is being typed, for completion.
struct TypedWord {
    std::string text;      ///< without its quotes
    std::size_t begin = 0; ///< of the word in the line, in bytes
    bool isFirst = true;   ///< no word stands before it
};
[[nodiscard]] TypedWord lastWord(std::string_view line);

/// The word as it is to be typed: with \ before what would be taken otherwise.
[[nodiscard]] std::string asTyped(std::string_view word);

} // namespace tavelin::cli
