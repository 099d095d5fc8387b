#include "hosts/cli/shell/words.hpp"

#include "hosts/cli/failure.hpp"

#include <optional>

namespace tavelin::cli {
namespace {

constexpr std::string_view kBlanks = " \t\r\n";

bool isBlank(char character) {
    return kBlanks.find(character) != std::string_view::npos;
}

/// Goes through a line word by word.
class WordReader {
  public:
    explicit WordReader(std::string_view line) : line_(line) {}

    /// The next word without its quotes; absent at the end of the line. An open quote ends with it.
    std::optional<std::string> next() {
        while (at_ < line_.size() && isBlank(line_[at_])) {
            ++at_;
        }
        begin_ = at_;
        if (at_ == line_.size() || line_[at_] == '#') {
            at_ = line_.size();
            return std::nullopt;
        }
        std::string word;
        while (at_ < line_.size() && (quote_ != '\0' || !isBlank(line_[at_]))) {
            take(word);
        }
        return word;
    }

    /// Where the word of the last next() begins.
    [[nodiscard]] std::size_t begin() const noexcept { return begin_; }
    [[nodiscard]] bool isQuoteOpen() const noexcept { return quote_ != '\0'; }

  private:
    void take(std::string& word) {
        const char character = line_[at_++];
        const bool escapes = character == '\\' && quote_ != '\'' && at_ < line_.size() &&
                             (quote_ == '\0' || line_[at_] == '"' || line_[at_] == '\\');
        if (escapes) {
            word += line_[at_++];
        } else if (quote_ == '\0' && (character == '\'' || character == '"')) {
            quote_ = character;
        } else if (quote_ != '\0' && character == quote_) {
            quote_ = '\0';
        } else {
            word += character;
        }
    }

    const std::string_view line_;
    std::size_t at_ = 0;
    std::size_t begin_ = 0;
    char quote_ = '\0';
};

} // namespace

std::vector<std::string> wordsOf(std::string_view line) {
    WordReader reader(line);
    std::vector<std::string> words;
    while (std::optional<std::string> word = reader.next()) {
        words.push_back(std::move(*word));
    }
    if (reader.isQuoteOpen()) {
        throw Failure("a quote is not closed", ExitStatus::wrongUsage);
    }
    return words;
}

TypedWord lastWord(std::string_view line) {
    WordReader reader(line);
    TypedWord last{.text = {}, .begin = line.size(), .isFirst = true};
    std::size_t count = 0;
    while (std::optional<std::string> word = reader.next()) {
        last.text = std::move(*word);
        last.begin = reader.begin();
        ++count;
    }
    const bool isBetweenWords = !reader.isQuoteOpen() && !line.empty() && isBlank(line.back()) &&
                                reader.begin() == line.size();
    if (isBetweenWords) {
        last = {.text = {}, .begin = line.size(), .isFirst = true};
        ++count;
    }
    last.isFirst = count <= 1;
    return last;
}

std::string asTyped(std::string_view word) {
    std::string text;
    for (const char character : word) {
        if (isBlank(character) || character == '\'' || character == '"' || character == '\\' ||
            (character == '#' && text.empty())) {
            text += '\\';
        }
        text += character;
    }
    return text;
}

} // namespace tavelin::cli
