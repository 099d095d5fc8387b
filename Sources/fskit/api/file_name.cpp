#include "fskit/api/file_name.hpp"

#include <fmt/format.h>

#include <cstddef>
#include <cstdint>

namespace fskit {
namespace {

/// Bytes of the valid UTF-8 sequence at the start of a non-empty text, 0 when there is none.
/// Overlong forms, surrogates and code points over U+10FFFF are not valid (RFC 3629).
std::size_t sequenceLength(std::string_view text) noexcept {
    const auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
    const std::uint8_t lead = byte(0);
    if (lead < 0x80) {
        return 1;
    }
    const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4 || text.size() < length) {
        return 0;
    }
    std::uint8_t low = 0x80;
    std::uint8_t high = 0xBF;
    switch (lead) {
    case 0xE0:
        low = 0xA0;
        break;
    case 0xED:
        high = 0x9F;
        break;
    case 0xF0:
        low = 0x90;
        break;
    case 0xF4:
        high = 0x8F;
        break;
    default:
        break;
    }
    if (byte(1) < low || byte(1) > high) {
        return 0;
    }
    for (std::size_t i = 2; i < length; i++) {
        if ((byte(i) & 0xC0) != 0x80) {
            return 0;
        }
    }
    return length;
}

} // namespace

std::optional<std::string_view> FSFileName::string() const noexcept {
    for (std::string_view rest = data_; !rest.empty();) {
        const std::size_t length = sequenceLength(rest);
        if (length == 0) {
            return std::nullopt;
        }
        rest.remove_prefix(length);
    }
    return data_;
}

std::string FSFileName::debugDescription() const {
    std::string shown;
    for (std::string_view rest = data_; !rest.empty();) {
        const std::size_t length = sequenceLength(rest);
        const auto byte = static_cast<std::uint8_t>(rest[0]);
        if (length == 0 || byte < 0x20 || byte == 0x7F) {
            shown += fmt::format("\\x{:02x}", byte);
            rest.remove_prefix(1);
        } else {
            shown += rest.substr(0, length);
            rest.remove_prefix(length);
        }
    }
    return shown;
}

} // namespace fskit
