/// JSON texts, for the programs that read the output of commands.
///
/// The JSON library's headers take longer to compile than a whole command, so only json.cpp
/// includes them. Texts that are not UTF-8 get U+FFFD in place of what is not valid. On a terminal
/// everything but ASCII is escaped, so no name can drive it. One thread at a time.
#pragma once

#include <concepts>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace tavelin::cli {

/// A text as a JSON string, with its quotation marks.
[[nodiscard]] std::string jsonText(std::string_view text);

/// An object that is written member by member and keeps their order. Keys are constants of the
/// program. The caller uses each key once.
class JSONObject {
  public:
    /// Adds a member: text, a bool, an integer, an object, or a range of any of these.
    template<typename Value>
    /// Answers the object itself, so that calls can follow each other.
    JSONObject& add(std::string_view key, const Value& value) {
        members_ += (members_.empty() ? "" : ",") + jsonText(key) + ":" + textOf(value);
        return *this;
    }
    /// The whole object on one line.
    [[nodiscard]] std::string text() const { return "{" + members_ + "}"; }

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
            std::string elements;
            for (const auto& element : value) {
                elements += (elements.empty() ? "" : ",") + textOf(element);
            }
            return "[" + elements + "]";
        }
    }

    /// The members so far, separated by commas and without the braces.
    std::string members_;
};

/// The members of an object in the order of their keys: strings as they are, other values as JSON.
/// Absent when the text is no JSON object.
using JSONMembers = std::vector<std::pair<std::string, std::string>>;
[[nodiscard]] std::optional<JSONMembers> jsonMembers(std::string_view text);

} // namespace tavelin::cli
