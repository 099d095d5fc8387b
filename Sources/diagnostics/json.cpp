#include "diagnostics/json.hpp"

#include <nlohmann/json.hpp>

#include <cmath>

namespace tavelin {

namespace {

using nlohmann::json;

/// Thrown for a value that JSON has no form for.
struct NotJson {};

/// Formats a record. Lists and objects are put together here and only leaves by the library: its
/// own containers allocate in their destructor, and end the process when there is no memory.
class Writer {
  public:
    void operator()(const FieldValue::Map& map) {
        text_ += '{';
        for (const auto& [key, entry] : map) {
            separate('{');
            (*this)(key);
            text_ += ':';
            std::visit(*this, entry.storage());
        }
        text_ += '}';
    }
    void operator()(const FieldValue::List& list) {
        text_ += '[';
        for (const FieldValue& entry : list) {
            separate('[');
            std::visit(*this, entry.storage());
        }
        text_ += ']';
    }
    void operator()(double number) {
        if (!std::isfinite(number)) {
            throw NotJson{};
        }
        text_ += json(number).dump();
    }
    /// EventLog::clean() has replaced dates by text.
    void operator()(Date) { throw NotJson{}; }
    void operator()(const auto& plain) { text_ += json(plain).dump(); }

    std::string take() { return std::move(text_); }

  private:
    /// Writes the comma before every entry but the first, which follows the opening bracket.
    void separate(char opening) {
        if (text_.back() != opening) {
            text_ += ',';
        }
    }

    std::string text_;
};

} // namespace

std::optional<std::string> jsonLine(const Fields& record) {
    try {
        Writer writer;
        writer(record);
        return writer.take() + '\n';
    } catch (const NotJson&) {
        return std::nullopt;
    } catch (const json::exception&) {
        return std::nullopt; // the library refuses text that is not UTF-8
    }
}

std::string jsonText(std::string_view text, bool onlyASCII) {
    return json(text).dump(-1, ' ', onlyASCII, json::error_handler_t::replace);
}

std::optional<JSONMembers> jsonMembers(std::string_view text) {
    const auto object = json::parse(text, nullptr, false);
    if (!object.is_object()) {
        return std::nullopt;
    }
    JSONMembers members;
    for (const auto& [key, value] : object.items()) {
        members.emplace_back(key, value.is_string() ? value.get<std::string>() : value.dump());
    }
    return members;
}

} // namespace tavelin
