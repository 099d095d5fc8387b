#include "hosts/cli/json.hpp"

#include "hosts/cli/terminal.hpp"

#include <nlohmann/json.hpp>

namespace tavelin::cli {

std::string jsonText(std::string_view text) {
    using JSON = nlohmann::json;
    return JSON(text).dump(-1, ' ', isOutputTerminal(), JSON::error_handler_t::replace);
}

std::optional<JSONMembers> jsonMembers(std::string_view text) {
    const auto object = nlohmann::json::parse(text, nullptr, false);
    if (!object.is_object()) {
        return std::nullopt;
    }
    JSONMembers members;
    for (const auto& [key, value] : object.items()) {
        members.emplace_back(key, value.is_string() ? value.get<std::string>() : value.dump());
    }
    return members;
}

} // namespace tavelin::cli
