/// JSON texts, for the programs that read the output of commands.
///
/// Texts that are not UTF-8 get U+FFFD in place of what is not valid. On a terminal everything but
/// ASCII is escaped, so no name can drive it. One thread at a time.
#pragma once

#include <concepts>
#include <string>
#include <string_view>
#include <type_traits>

namespace tavelin::cli {

/// A text as a JSON string, with its quotation marks.
[[nodiscard]] std::string jsonText(std::string_view text);

/// An object that is written member by member and keeps their order. Keys are constants of the
/// program. The caller uses each key once.
class JSONObject {
  public:
    /// Adds a member: text, a bool, an integer, an object, or a range of any of these.
    /// Answers the object itself, so that calls can follow each other.
    template<typename Value>
    JSONObject& add(std::string_view key, const Value& value) {
        return addJSON(key, textOf(value));
    }
    /// The whole object on one line.
    [[nodiscard]] std::string text() const { return text_ + '}'; }

  private:
    template<typename Value>
    static std::string textOf(const Value& value) {
        if constexpr (std::same_as<Value, bool>) {
            return value ? "true" : "false";
        } else if constexpr (std::integral<Value>) {
            return std::to_string(value);
        } else if constexpr (std::same_as<Value, JSONObject>) {
            return value.text();
        } else if constexpr (std::convertible_to<const Value&, std::string_view>) {
            return jsonText(value);
        } else {
            std::string elements = "[";
            for (const auto& element : value) {
                separate(elements, '[');
                elements += textOf(element);
            }
            return elements += ']';
        }
    }
    /// Adds a member whose value is written already.
    JSONObject& addJSON(std::string_view key, const std::string& value);
    /// A comma before all but the first.
    static void separate(std::string& list, char opening);

    /// The object so far, without the closing brace.
    std::string text_ = "{";
};

} // namespace tavelin::cli
