// Numbers as NTFS stores them, in little endian and at any alignment.
//
// The caller has made sure that the bytes are there.
#pragma once

#include <cstdint>

namespace ntb {

// An unsigned number of `width` bytes, at most 8.
// Also for the odd widths that mapping pairs have.
[[nodiscard]] constexpr uint64_t unsigned_at(const uint8_t* bytes, uint64_t offset,
                                             unsigned width) noexcept {
    uint64_t number = 0;
    for (unsigned i = width; i > 0; --i) {
        number = number << 8 | bytes[offset + i - 1];
    }
    return number;
}

// The same with its sign; 0 for no bytes.
[[nodiscard]] constexpr int64_t signed_at(const uint8_t* bytes, uint64_t offset,
                                          unsigned width) noexcept {
    uint64_t number = unsigned_at(bytes, offset, width);
    if (width > 0 && width < 8 && (bytes[offset + width - 1] & 0x80) != 0) {
        number |= ~uint64_t{0} << (width * 8);
    }
    return static_cast<int64_t>(number);
}

// The widths that most fields have, spelt out so that the compiler makes a single load of each.
[[nodiscard]] constexpr uint16_t u16_at(const uint8_t* bytes, uint64_t offset) noexcept {
    return static_cast<uint16_t>(bytes[offset] | bytes[offset + 1] << 8);
}
[[nodiscard]] constexpr uint32_t u32_at(const uint8_t* bytes, uint64_t offset) noexcept {
    return u16_at(bytes, offset) | static_cast<uint32_t>(u16_at(bytes, offset + 2)) << 16;
}
[[nodiscard]] constexpr uint64_t u64_at(const uint8_t* bytes, uint64_t offset) noexcept {
    return u32_at(bytes, offset) | static_cast<uint64_t>(u32_at(bytes, offset + 4)) << 32;
}

// Stores the low `width` bytes of a number; higher bytes of it are dropped.
constexpr void put_at(uint8_t* bytes, uint64_t offset, unsigned width, uint64_t number) noexcept {
    for (unsigned i = 0; i < width; ++i, number >>= 8) {
        bytes[offset + i] = static_cast<uint8_t>(number);
    }
}

} // namespace ntb
