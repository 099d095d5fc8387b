#include "compression/lzx_decoder.hpp"

#include <utility>

namespace tavelin::compression {
namespace {

enum BlockType : std::uint32_t { kVerbatim = 1, kAligned = 2, kUncompressed = 3 };

constexpr unsigned kMatchBytesMin = 2;
constexpr unsigned kLongMatch = 7; // in the symbol: the length code has the rest
constexpr unsigned kAlignedBits = 3;
constexpr unsigned kRecentSlots = 3;

struct DistanceSlot {
    std::uint16_t base; // the least distance
    std::uint8_t extra; // bits that are added to it
};

// Slots 0 to 2 are the recent distances. Distances are written as their value plus 2.
constexpr std::array<DistanceSlot, 30> kSlots = [] {
    std::array<DistanceSlot, 30> slots{};
    unsigned written = kRecentSlots;
    for (unsigned slot = kRecentSlots; slot < slots.size(); slot++) {
        const unsigned extra = slot < 4 ? 0 : slot / 2 - 1;
        slots[slot] = {static_cast<std::uint16_t>(written - 2), static_cast<std::uint8_t>(extra)};
        written += 1U << extra;
    }
    return slots;
}();
static_assert(kSlots.back().base + (1U << kSlots.back().extra) == LzxDecoder::kChunkSizeMax - 2);

/// Undoes the encoder's translation of x86 calls, whose relative targets it made absolute.
void translateCalls(std::span<std::uint8_t> data) noexcept {
    constexpr std::int32_t kFileSize = 12'000'000;
    constexpr std::uint8_t kCall = 0xe8;
    constexpr std::size_t kUntranslatedTail = 10;
    // The encoder leaves the last bytes alone, so that a call's four bytes never end behind them.
    static_assert(kUntranslatedTail >= 1 + sizeof(std::int32_t));
    if (data.size() <= kUntranslatedTail) {
        return;
    }
    std::uint8_t* next = data.data();
    std::uint8_t* const end = next + data.size() - kUntranslatedTail;
    while (next < end) {
        next = static_cast<std::uint8_t*>(
            std::memchr(next, kCall, static_cast<std::size_t>(end - next)));
        if (next == nullptr) {
            return;
        }
        const auto position = static_cast<std::int32_t>(next - data.data());
        const auto target = loadLittle<std::int32_t>(next + 1);
        if (target >= 0 && target < kFileSize) {
            storeLittle(next + 1, target - position);
        } else if (target < 0 && target >= -position) {
            storeLittle(next + 1, target + kFileSize);
        }
        // The bytes of a target are not searched, whether it was translated or not: the encoder
        // skipped them too.
        next += 5;
    }
}

} // namespace

bool LzxDecoder::decode(std::span<const std::uint8_t> input,
                        std::span<std::uint8_t> output) noexcept {
    if (output.size() > kChunkSizeMax) {
        return false;
    }
    // Each chunk stands for itself: nothing of the one before may show in the differences of code
    // lengths or in the recent distances.
    mainLengths_.fill(0);
    lengthLengths_.fill(0);
    recent_ = {1, 1, 1};
    BitStream bits(input.data(), input.data() + input.size());
    Window window{output.data(), output.data(), nullptr, output.data() + output.size()};
    while (window.next != window.end) {
        bits.fill();
        const std::uint32_t type = bits.take(3);
        const std::size_t size = bits.take(1) != 0 ? kChunkSizeMax : bits.take(16);
        if (size == 0 || size > static_cast<std::size_t>(window.end - window.next)) {
            return false;
        }
        window.blockEnd = window.next + size;
        TAVELIN_ASSERT(window.next < window.blockEnd && window.blockEnd <= window.end);
        bool isValid = false; // as for the other five types
        if (type == kUncompressed) {
            isValid = copyBlock(bits, window);
        } else if (type == kVerbatim) {
            isValid = readCodes(bits, false) && decodeBlock<false>(bits, window);
        } else if (type == kAligned) {
            isValid = readCodes(bits, true) && decodeBlock<true>(bits, window);
        }
        if (!isValid) {
            return false;
        }
        TAVELIN_ASSERT(window.next == window.blockEnd);
    }
    translateCalls(output);
    return true;
}

bool LzxDecoder::readCodes(BitStream& bits, bool aligned) noexcept {
    if (aligned) {
        std::array<std::uint8_t, kAlignedSymbols> lengths;
        for (std::uint8_t& length : lengths) {
            bits.fill();
            length = static_cast<std::uint8_t>(bits.take(3));
        }
        using Kind = decltype(aligned_)::Kind;
        if (aligned_.build(lengths) != Kind::complete) {
            return false;
        }
    }
    // The literals and the matches of the main code have a code of lengths each.
    const std::span<std::uint8_t> main(mainLengths_);
    if (!readLengths(bits, main.first(kLiterals)) || !readLengths(bits, main.subspan(kLiterals)) ||
        !readLengths(bits, lengthLengths_)) {
        return false;
    }
    // The length code is empty where the block has no long match.
    using Kind = decltype(length_)::Kind;
    const Kind lengthKind = length_.build(lengthLengths_);
    hasLengthCode_ = lengthKind == Kind::complete;
    return lengthKind != Kind::invalid &&
           main_.build(mainLengths_) == decltype(main_)::Kind::complete;
}

/// Code lengths are given as differences to those of the block before, modulo 17, and these by a
/// Huffman code of their own.
bool LzxDecoder::readLengths(BitStream& bits, std::span<std::uint8_t> lengths) noexcept {
    constexpr unsigned kSymbols = 20;
    constexpr unsigned kZeros = 17;
    constexpr unsigned kManyZeros = 18;
    constexpr unsigned kSame = 19;
    std::array<std::uint8_t, kSymbols> codeLengths;
    for (std::uint8_t& length : codeLengths) {
        bits.fill();
        length = static_cast<std::uint8_t>(bits.take(4));
    }
    HuffmanCode<kSymbols, 15, 6> code;
    if (code.build(codeLengths) != decltype(code)::Kind::complete) {
        return false;
    }
    const auto changed = [](std::uint8_t before, unsigned difference) {
        TAVELIN_ASSERT(before < 17 && difference < 17);
        return static_cast<std::uint8_t>((before + 17U - difference) % 17U);
    };
    for (std::size_t i = 0; i < lengths.size();) {
        bits.fill();
        const unsigned symbol = code.decode(bits);
        if (symbol < kZeros) {
            lengths[i] = changed(lengths[i], symbol);
            i++;
            continue;
        }
        std::size_t run = 0;
        std::uint8_t length = 0;
        if (symbol == kZeros) {
            run = 4 + bits.take(4);
        } else if (symbol == kManyZeros) {
            run = 20 + bits.take(5);
        } else {
            static_assert(kSame == kSymbols - 1);
            run = 4 + bits.take(1);
            bits.fill();
            const unsigned difference = code.decode(bits);
            if (difference >= kZeros) {
                return false;
            }
            // All lengths of the run become that of its first symbol.
            length = changed(lengths[i], difference);
        }
        if (run > lengths.size() - i) {
            return false;
        }
        std::memset(&lengths[i], length, run);
        i += run;
    }
    return bits.isWithinInput();
}

/// The distance of a slot that is none of the recent ones. In aligned blocks the last three bits of
/// a longer distance have a code of their own.
template<bool Aligned>
TAVELIN_INLINE std::uint32_t LzxDecoder::readDistance(BitStream& bits,
                                                      unsigned slot) const noexcept {
    static_assert(kSlots.size() == kDistanceSlots);
    TAVELIN_ASSERT(slot >= kRecentSlots && slot < kSlots.size());
    const auto [base, extra] = kSlots[slot];
    // At most 13 extra bits, or 10 and a code word of 7: one fill serves both.
    bits.fill();
    if (!Aligned || extra < kAlignedBits) {
        return base + bits.take(extra);
    }
    const std::uint32_t distance = base + (bits.take(extra - kAlignedBits) << kAlignedBits);
    return distance + aligned_.decode(bits);
}

template<bool Aligned>
bool LzxDecoder::decodeBlock(BitStream& stream, Window& window) noexcept {
    BitStream bits = stream; // a copy whose address nobody has stays in registers
    std::uint32_t recent0 = recent_[0];
    std::uint32_t recent1 = recent_[1];
    std::uint32_t recent2 = recent_[2];
    std::uint8_t* next = window.next;
    while (next != window.blockEnd) {
        bits.fill();
        unsigned symbol = main_.decode(bits);
        if (symbol < kLiterals) {
            *next++ = static_cast<std::uint8_t>(symbol);
            if (next == window.blockEnd) {
                break;
            }
            symbol = main_.decode(bits); // two symbols have 32 bits at most
            if (symbol < kLiterals) {
                *next++ = static_cast<std::uint8_t>(symbol);
                continue;
            }
            bits.fill();
        }
        symbol -= kLiterals;
        std::size_t length = symbol % kLengthHeaders;
        if (length == kLongMatch) {
            if (!hasLengthCode_) {
                return false;
            }
            length += length_.decode(bits);
        }
        length += kMatchBytesMin;
        const unsigned slot = symbol / kLengthHeaders;
        if (slot >= kRecentSlots) {
            const std::uint32_t distance = readDistance<Aligned>(bits, slot);
            recent2 = recent1;
            recent1 = recent0;
            recent0 = distance;
        } else if (slot == 1) { // a recent distance changes places with the last one
            std::swap(recent0, recent1);
        } else if (slot == 2) {
            std::swap(recent0, recent2);
        }
        // An uncompressed block may have brought in distances of 0.
        if (recent0 - 1U >= static_cast<std::size_t>(next - window.begin) ||
            length > static_cast<std::size_t>(window.blockEnd - next)) {
            return false;
        }
        copyMatch(next, recent0, length, window.end);
        next += length;
    }
    window.next = next;
    recent_ = {recent0, recent1, recent2};
    stream = bits;
    return bits.isWithinInput();
}

/// An uncompressed block: the recent distances, the bytes, and one more where their number is odd.
bool LzxDecoder::copyBlock(BitStream& bits, Window& window) noexcept {
    bits.skipToNextWord();
    for (std::uint32_t& distance : recent_) {
        const std::uint8_t* const bytes = bits.bytes(sizeof distance);
        if (bytes == nullptr) {
            return false;
        }
        distance = loadLittle<std::uint32_t>(bytes);
    }
    const auto size = static_cast<std::size_t>(window.blockEnd - window.next);
    const std::uint8_t* const bytes = bits.bytes(size);
    if (bytes == nullptr) {
        return false;
    }
    std::memcpy(window.next, bytes, size);
    window.next = window.blockEnd;
    // The last block of a chunk may do without the byte, which nobody reads.
    return size % 2 == 0 || window.next == window.end || bits.bytes(1) != nullptr;
}

} // namespace tavelin::compression
