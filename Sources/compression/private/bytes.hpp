/// Little-endian loads and the copying of matches, shared by the decoders.
#pragma once

#include "platform/assert.hpp"

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#define TAVELIN_INLINE inline __attribute__((always_inline))

namespace tavelin::compression {

static_assert(std::endian::native == std::endian::little);

template<typename T>
[[nodiscard]] TAVELIN_INLINE T loadLittle(const std::uint8_t* from) noexcept {
    T value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

template<typename T>
TAVELIN_INLINE void storeLittle(std::uint8_t* to, T value) noexcept {
    std::memcpy(to, &value, sizeof value);
}

/// Copies `length` (at least 1) bytes from `distance` bytes before `to`, which may be fewer than
/// `length`: the bytes then repeat. Writes up to 16 bytes beyond, but not past `end`.
TAVELIN_INLINE void copyMatch(std::uint8_t* to, std::size_t distance, std::size_t length,
                              const std::uint8_t* end) noexcept {
    TAVELIN_ASSERT(distance > 0 && length > 0 && length <= static_cast<std::size_t>(end - to));
    const std::uint8_t* from = to - distance;
    std::uint8_t* const stop = to + length;
    if (static_cast<std::size_t>(end - stop) < 16) [[unlikely]] {
        while (to < stop) {
            *to++ = *from++;
        }
        return;
    }
    if (distance >= 16) {
        do {
            std::memcpy(to, from, 16);
            to += 16;
            from += 16;
        } while (to < stop);
    } else if (distance >= 8) {
        do {
            storeLittle(to, loadLittle<std::uint64_t>(from));
            to += 8;
            from += 8;
        } while (to < stop);
    } else if (distance == 1) {
        const std::uint64_t bytes = 0x0101010101010101U * *from;
        do {
            storeLittle(to, bytes);
            to += 8;
        } while (to < stop);
    } else {
        // A whole number of repetitions, at least 8 bytes, becomes the distance.
        static constexpr std::uint8_t kWhole[8] = {0, 0, 8, 9, 8, 10, 12, 14};
        const std::size_t whole = kWhole[distance];
        for (std::size_t i = 0; i < whole; i++) {
            to[i] = from[i];
        }
        from = to;
        to += whole;
        while (to < stop) {
            storeLittle(to, loadLittle<std::uint64_t>(from));
            to += 8;
            from += 8;
        }
    }
}

} // namespace tavelin::compression
