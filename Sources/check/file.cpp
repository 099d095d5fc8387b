#include "check/private/file.hpp"

#include <algorithm>

namespace tavelin::check {
namespace {

constexpr std::uint64_t kFileNameHeader = 0x42; // bytes

std::uint64_t mixed(std::uint64_t hash, std::uint64_t word) noexcept {
    hash = (hash ^ word) * 0x9e3779b97f4a7c15;
    return hash ^ hash >> 29;
}

void appendUtf8(std::string& text, std::uint32_t point) {
    TAVELIN_ASSERT(point < 0x110000 && (point < 0xd800 || point >= 0xe000));
    const auto byte = [&](std::uint32_t value) { text += static_cast<char>(value); };
    if (point < 0x80) {
        byte(point);
    } else if (point < 0x800) {
        byte(0xc0 | point >> 6);
        byte(0x80 | (point & 0x3f));
    } else if (point < 0x10000) {
        byte(0xe0 | point >> 12);
        byte(0x80 | (point >> 6 & 0x3f));
        byte(0x80 | (point & 0x3f));
    } else {
        byte(0xf0 | point >> 18);
        byte(0x80 | (point >> 12 & 0x3f));
        byte(0x80 | (point >> 6 & 0x3f));
        byte(0x80 | (point & 0x3f));
    }
}

} // namespace

bool isNamed(RawName name, std::string_view ascii) noexcept {
    if (name.size() != ascii.size() * 2) {
        return false;
    }
    for (std::size_t i = 0; i < ascii.size(); ++i) {
        if (ntb::u16_at(name.data(), i * 2) != static_cast<unsigned char>(ascii[i])) {
            return false;
        }
    }
    return true;
}

std::string toText(RawName name) {
    constexpr std::uint32_t kReplacement = 0xfffd;
    std::string text;
    for (std::size_t i = 0; i + 1 < name.size(); i += 2) {
        std::uint32_t point = ntb::u16_at(name.data(), i);
        if (point >= 0xd800 && point < 0xdc00 && i + 3 < name.size()) {
            const std::uint32_t low = ntb::u16_at(name.data(), i + 2);
            if (low >= 0xdc00 && low < 0xe000) {
                point = 0x10000 + ((point - 0xd800) << 10) + (low - 0xdc00);
                i += 2;
            }
        }
        // NTFS stores any 16-bit units; UTF-8 has no form for half a pair. A slash or NUL inside a
        // name would make the path in a finding lead elsewhere.
        const bool isLoneSurrogate = point >= 0xd800 && point < 0xe000;
        appendUtf8(text, isLoneSurrogate || point == '/' || point == 0 ? kReplacement : point);
    }
    return text;
}

const Attribute* File::find(std::uint32_t type, std::string_view name) const {
    const auto found =
        std::find_if(attributes.begin(), attributes.end(), [&](const Attribute& attribute) {
            return attribute.type() == type && isNamed(attribute.first.name(), name);
        });
    return found == attributes.end() ? nullptr : &*found;
}

bool parseFileName(std::span<const std::uint8_t> bytes, FileName& name) noexcept {
    if (bytes.size() < kFileNameHeader) {
        return false;
    }
    const std::uint64_t length = bytes[0x40];
    if (length == 0 || kFileNameHeader + length * 2 > bytes.size() ||
        bytes[0x41] > ntb::namespace_win32_and_dos) {
        return false;
    }
    // What follows the name in an attribute or a key is padding, and no part of the file name.
    name.bytes = bytes.first(kFileNameHeader + length * 2);
    TAVELIN_ASSERT(name.name().size() == length * 2);
    return true;
}

bool FileName::isSameName(const FileName& other) const noexcept {
    return nameSpace() == other.nameSpace() && std::ranges::equal(name(), other.name());
}

std::uint64_t FileName::hash(std::uint64_t directory) const noexcept {
    // The seed is the fraction of pi; any number does. Hashes are added up, so each has to depend
    // on all of its name: two names must not cancel another two out.
    std::uint64_t hash = mixed(0x243f6a8885a308d3, directory);
    hash = mixed(hash, nameSpace());
    const RawName units = name();
    for (std::size_t i = 0; i < units.size(); i += 2) {
        hash = mixed(hash, ntb::u16_at(units.data(), i));
    }
    return mixed(hash, units.size());
}

} // namespace tavelin::check
