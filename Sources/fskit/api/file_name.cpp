#include "fskit/api/file_name.hpp"

#include "platform/utf8.hpp"

#include <fmt/format.h>

namespace fskit {

std::optional<std::string_view> FSFileName::string() const noexcept {
    if (!tavelin::isUTF8(data_)) {
        return std::nullopt;
    }
    return data_;
}

std::string FSFileName::debugDescription() const {
    std::string shown;
    for (const char byte : tavelin::repairUTF8(data_)) {
        const auto value = static_cast<unsigned char>(byte);
        if (value < 0x20 || value == 0x7f) {
            shown += fmt::format("\\x{:02x}", value);
        } else {
            shown += byte;
        }
    }
    return shown;
}

} // namespace fskit
