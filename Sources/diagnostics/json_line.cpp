#include "diagnostics/private/json_line.hpp"

#include <nlohmann/json.hpp>

#include <cmath>

namespace tavelin {

namespace {

using nlohmann::json;

struct NotJson {};

// Lists and objects are put together here: the library's own need memory to be destroyed, and
// without it end the process.
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
    void operator()(Date) { throw NotJson{}; }
    void operator()(const auto& plain) { text_ += json(plain).dump(); }

    std::string take() { return std::move(text_); }

  private:
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
        return std::nullopt; // text that was not cleaned
    }
}

} // namespace tavelin
