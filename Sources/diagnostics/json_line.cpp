#include "diagnostics/private/json_line.hpp"

#include <nlohmann/json.hpp>

#include <cmath>

namespace tavelin {

namespace {

using nlohmann::json;

struct NotJson {};

json jsonOf(const FieldValue& value);

struct Converter {
    json operator()(const FieldValue::Map& map) const {
        json object = json::object();
        for (const auto& [key, entry] : map) {
            object[key] = jsonOf(entry);
        }
        return object;
    }
    json operator()(const FieldValue::List& list) const {
        json array = json::array();
        for (const FieldValue& entry : list) {
            array.push_back(jsonOf(entry));
        }
        return array;
    }
    json operator()(double number) const {
        if (!std::isfinite(number)) {
            throw NotJson{};
        }
        return number;
    }
    json operator()(Date) const { throw NotJson{}; }
    json operator()(const auto& plain) const { return plain; }
};

json jsonOf(const FieldValue& value) {
    return std::visit(Converter{}, value.storage());
}

} // namespace

std::optional<std::string> jsonLine(const Fields& record) {
    try {
        return Converter{}(record).dump() + '\n';
    } catch (const NotJson&) {
        return std::nullopt;
    } catch (const json::exception&) {
        return std::nullopt; // text that was not cleaned
    }
}

} // namespace tavelin
