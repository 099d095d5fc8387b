#include "compression/xpress_decoder.hpp"

namespace tavelin::compression {
namespace {

constexpr std::size_t kLengthsSize = 256; // bytes that the code lengths take
constexpr unsigned kLiterals = 256;
constexpr unsigned kMatchBytesMin = 3;
constexpr unsigned kLongMatch = 15;    // in the symbol: the length follows in a byte
constexpr unsigned kLongerMatch = 255; // in that byte: the length follows in two bytes

/// Reads the length of a match whose symbol says kLongMatch, less kMatchBytesMin. 0 when it is not
/// there, or shorter than its form is for.
TAVELIN_INLINE unsigned readLongLength(BitStream& bits) noexcept {
    // The encoder keeps one to two words ahead of the bits; the length stands behind these.
    bits.giveBackBeyond(16);
    const std::uint8_t* const byte = bits.bytes(1);
    if (byte == nullptr) {
        return 0;
    }
    unsigned length = kLongMatch + *byte;
    if (*byte == kLongerMatch) {
        const std::uint8_t* const word = bits.bytes(2);
        if (word == nullptr) {
            return 0;
        }
        length = loadLittle<std::uint16_t>(word);
    }
    bits.fill();
    // A shorter length has a shorter form. Refusing it leaves 0 to mean a failure.
    return length < kLongMatch ? 0 : length;
}

} // namespace

bool XpressDecoder::decode(std::span<const std::uint8_t> input,
                           std::span<std::uint8_t> output) noexcept {
    static_assert(2 * kLengthsSize == kSymbols && kLiterals + 16 * 16 == kSymbols);
    if (input.size() < kLengthsSize) {
        return false;
    }
    std::array<std::uint8_t, kSymbols> lengths;
    for (std::size_t i = 0; i < kLengthsSize; i++) {
        lengths[2 * i] = input[i] & 15;
        lengths[2 * i + 1] = input[i] >> 4;
    }
    using Kind = decltype(code_)::Kind;
    if (code_.build(lengths) != Kind::complete) {
        return false;
    }
    BitStream bits(input.data() + kLengthsSize, input.data() + input.size());
    std::uint8_t* const begin = output.data();
    std::uint8_t* const end = begin + output.size();
    std::uint8_t* next = begin;
    while (next != end) {
        bits.fill();
        unsigned symbol = code_.decode(bits);
        // 32 bits are enough for two symbols, or for a symbol and a distance.
        if (symbol < kLiterals) {
            *next++ = static_cast<std::uint8_t>(symbol);
            if (next == end) {
                break;
            }
            symbol = code_.decode(bits);
            if (symbol < kLiterals) {
                *next++ = static_cast<std::uint8_t>(symbol);
                continue;
            }
            bits.fill();
        }
        TAVELIN_ASSERT(symbol < kSymbols);
        std::size_t length = symbol % 16;
        const unsigned distanceBits = symbol / 16 % 16;
        if (length == kLongMatch) {
            length = readLongLength(bits);
            if (length == 0) {
                return false;
            }
        }
        length += kMatchBytesMin;
        const std::size_t distance = (std::size_t{1} << distanceBits) + bits.take(distanceBits);
        // Only these two comparisons keep a damaged chunk inside the output: copyMatch() has none.
        if (distance > static_cast<std::size_t>(next - begin) ||
            length > static_cast<std::size_t>(end - next)) {
            return false;
        }
        copyMatch(next, distance, length, end);
        next += length;
    }
    // One look at the end is enough. Behind the input the stream goes on with zeros, and the loop
    // stops when the output is full.
    return bits.isWithinInput();
}

} // namespace tavelin::compression
