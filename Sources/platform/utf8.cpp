#include "platform/utf8.hpp"

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace tavelin {

namespace {

struct Lead {
    /// Length of the sequence in bytes; 0 when no sequence begins with this byte.
    std::size_t length;
    /// Bounds of the second byte, which rule out overlong forms, surrogates and what lies beyond
    /// U+10FFFF (the Unicode Standard, table 3-7). All further bytes are 0x80 to 0xBF.
    std::uint8_t low = 0x80;
    std::uint8_t high = 0xbf;
};

Lead leadOf(std::uint8_t byte) noexcept {
    if (byte < 0x80) {
        return {1};
    }
    if (byte < 0xc2) {
        // 0x80 to 0xbf continue a sequence. 0xc0 and 0xc1 would begin overlong forms of ASCII.
        return {0};
    }
    if (byte < 0xe0) {
        return {2};
    }
    if (byte < 0xf0) {
        // 0xe0 excludes overlong forms. 0xed excludes the surrogates.
        return {3, static_cast<std::uint8_t>(byte == 0xe0 ? 0xa0 : 0x80),
                static_cast<std::uint8_t>(byte == 0xed ? 0x9f : 0xbf)};
    }
    if (byte < 0xf5) {
        // 0xf0 excludes overlong forms. 0xf4 excludes numbers above U+10FFFF.
        return {4, static_cast<std::uint8_t>(byte == 0xf0 ? 0x90 : 0x80),
                static_cast<std::uint8_t>(byte == 0xf4 ? 0x8f : 0xbf)};
    }
    return {0};
}

struct Sequence {
    std::size_t length; ///< in bytes, at least 1
    bool whole;         ///< a well-formed character
};

/// The sequence at the start of a text that is not empty: a whole character, or the longest part
/// of one that is there, at least one byte.
Sequence sequenceAt(std::string_view text) noexcept {
    const Lead lead = leadOf(static_cast<std::uint8_t>(text[0]));
    std::size_t length = 1;
    while (length < lead.length && length < text.size()) {
        const auto byte = static_cast<std::uint8_t>(text[length]);
        const bool second = length == 1;
        if (byte < (second ? lead.low : 0x80) || byte > (second ? lead.high : 0xbf)) {
            break;
        }
        ++length;
    }
    return {length, length == lead.length};
}

/// The length of the ASCII at the start, in whole words: most names are little else.
std::size_t asciiWords(std::string_view text) noexcept {
    constexpr std::uint64_t kNotASCII = 0x8080808080808080;
    std::size_t length = 0;
    for (std::uint64_t word = 0; text.size() - length >= sizeof word; length += sizeof word) {
        // memcpy, because the text need not be aligned.
        std::memcpy(&word, text.data() + length, sizeof word);
        if ((word & kNotASCII) != 0) {
            break;
        }
    }
    return length;
}

} // namespace

bool isUTF8(std::string_view text) noexcept {
    text.remove_prefix(asciiWords(text));
    while (!text.empty()) {
        const Sequence sequence = sequenceAt(text);
        if (!sequence.whole) {
            return false;
        }
        text.remove_prefix(sequence.length);
    }
    return true;
}

bool isUTF8OrSurrogates(std::string_view text) noexcept {
    bool afterHigh = false; // a high surrogate stood directly before
    while (!text.empty()) {
        const Sequence sequence = sequenceAt(text);
        std::size_t length = sequence.length;
        if (!sequence.whole) {
            const auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
            if (text.size() < 3 || byte(0) != 0xed || byte(1) < 0xa0 || byte(1) > 0xbf ||
                byte(2) < 0x80 || byte(2) > 0xbf) {
                return false;
            }
            const bool isHigh = byte(1) < 0xb0;
            if (afterHigh && !isHigh) {
                return false;
            }
            afterHigh = isHigh;
            length = 3;
        } else {
            afterHigh = false;
        }
        text.remove_prefix(length);
    }
    return true;
}

std::string repairUTF8(std::string_view text) {
    constexpr std::string_view kReplacement = "\xef\xbf\xbd";
    std::string repaired;
    repaired.reserve(text.size());
    while (!text.empty()) {
        const Sequence sequence = sequenceAt(text);
        repaired += sequence.whole ? text.substr(0, sequence.length) : kReplacement;
        text.remove_prefix(sequence.length);
    }
    return repaired;
}

std::string_view firstCharacters(std::string_view text, std::size_t count) {
    // Steps by sequences, so that no character is cut in its middle.
    std::size_t end = 0;
    while (count > 0 && end < text.size()) {
        end += sequenceAt(text.substr(end)).length;
        --count;
    }
    return text.substr(0, end);
}

} // namespace tavelin
