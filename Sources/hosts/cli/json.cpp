#include "hosts/cli/json.hpp"

#include "diagnostics/json.hpp"
#include "hosts/cli/terminal.hpp"

namespace tavelin::cli {

std::string jsonText(std::string_view text) {
    return tavelin::jsonText(text, isOutputTerminal());
}

JSONObject& JSONObject::addJSON(std::string_view key, const std::string& value) {
    separate(text_, '{');
    text_ += jsonText(key);
    text_ += ':';
    text_ += value;
    return *this;
}

void JSONObject::separate(std::string& list, char opening) {
    if (list.back() != opening) {
        list += ',';
    }
}

} // namespace tavelin::cli
