#include "platform/harmless_text.hpp"

#include "platform/assert.hpp"

namespace tavelin {

Character firstCharacter(std::string_view text) {
    TAVELIN_ASSERT(!text.empty());
    const auto lead = static_cast<unsigned char>(text.front());
    const std::size_t length = lead < 0x80                   ? 1
                               : lead >= 0xC2 && lead < 0xE0 ? 2
                               : lead >= 0xE0 && lead < 0xF0 ? 3
                               : lead >= 0xF0 && lead < 0xF5 ? 4
                                                             : 0;
    if (length == 0 || length > text.size()) {
        return {text.substr(0, 1), std::nullopt};
    }
    char32_t code = length == 1 ? lead : lead & (0x7Fu >> length);
    for (std::size_t i = 1; i < length; ++i) {
        const auto next = static_cast<unsigned char>(text[i]);
        if ((next & 0xC0u) != 0x80) {
            return {text.substr(0, 1), std::nullopt};
        }
        code = (code << 6) | (next & 0x3Fu);
    }
    // Leads 0xC0 and 0xC1, the overlong forms of ASCII, are excluded above.
    const bool overlong = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
    if (overlong || code > 0x10FFFF || (code >= 0xD800 && code < 0xE000)) {
        return {text.substr(0, 1), std::nullopt};
    }
    return {text.substr(0, length), code};
}

namespace {

/// Whether a character neither drives a terminal nor changes the reading of the line around it:
/// C0 and C1 controls, line and paragraph separators, and bidirectional controls do.
bool isHarmless(char32_t code) {
    const bool control = code < 0x20 || (code >= 0x7F && code < 0xA0);
    const bool separator = code == 0x2028 || code == 0x2029;
    const bool direction = code == 0x200E || code == 0x200F || code == 0x061C ||
                           (code >= 0x202A && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069);
    return !control && !separator && !direction;
}

/// The escaped form of a character that is not harmless, byte by byte.
std::string inEscapes(std::string_view bytes) {
    if (bytes == "\n") {
        return "\\n";
    }
    if (bytes == "\t") {
        return "\\t";
    }
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string result;
    for (const char each : bytes) {
        const auto byte = static_cast<unsigned char>(each);
        result.append("\\x").append(1, kDigits[byte >> 4u]).append(1, kDigits[byte & 0xFu]);
    }
    return result;
}

} // namespace

// A backslash is doubled only in a text that gets escapes. Most names with backslashes need none
// and stay readable; in the others no backslash of the name can pass for one of an escape.
std::string escaped(std::string_view text) {
    std::string result;
    bool changed = false;
    for (std::string_view rest = text; !rest.empty();) {
        const Character character = firstCharacter(rest);
        rest.remove_prefix(character.bytes.size());
        if (character.bytes == "\\") {
            result += "\\\\";
        } else if (character.code && isHarmless(*character.code)) {
            result += character.bytes;
        } else {
            changed = true;
            result += inEscapes(character.bytes);
        }
    }
    return changed ? result : std::string(text);
}

} // namespace tavelin
