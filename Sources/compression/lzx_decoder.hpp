/// Decoder of LZX chunks as Windows image files and system-compressed files have them: LZX as
/// Microsoft's cabinet documentation and [MS-PATCH] describe it, with these differences. Each chunk
/// of 32 KiB stands for itself, with a window of the same size; a block's size is 1 bit for 32 KiB
/// or else 16 bits; there is no header, and x86 calls are always translated, for a file size of
/// 12,000,000.
#pragma once

#include "compression/private/huffman_code.hpp"

namespace tavelin::compression {

/// Holds the tables of one block at a time, about 10 KiB. One thread; allocates nothing.
class LzxDecoder {
  public:
    /// The chunk and the window of the format, in bytes.
    static constexpr std::size_t kChunkSizeMax = 32768;

    /// Decodes a chunk to exactly `output.size()` bytes, at most kChunkSizeMax. False when the
    /// input is not a chunk of that size: the output's contents are then undefined. Never reads or
    /// writes outside of the two.
    [[nodiscard]] bool decode(std::span<const std::uint8_t> input,
                              std::span<std::uint8_t> output) noexcept;

  private:
    /// Sizes of the alphabets, from the description of the format.
    static constexpr unsigned kLiterals = 256;
    static constexpr unsigned kDistanceSlots = 30; // for a window of 32 KiB
    static constexpr unsigned kLengthHeaders = 8;
    static constexpr unsigned kMainSymbols = kLiterals + kDistanceSlots * kLengthHeaders;
    /// Lengths that do not fit into a main symbol.
    static constexpr unsigned kLengthSymbols = 249;
    static constexpr unsigned kAlignedSymbols = 8;

    /// The part of the output that a block fills, and the output's begin.
    struct Window {
        const std::uint8_t* begin;
        std::uint8_t* next;
        std::uint8_t* blockEnd;
        const std::uint8_t* end;
    };

    /// Reads the Huffman codes that begin a block. False where they are no codes.
    [[nodiscard]] bool readCodes(BitStream& bits, bool aligned) noexcept;
    /// Code lengths come as differences to those of the block before, in a small code of their own.
    [[nodiscard]] static bool readLengths(BitStream& bits,
                                          std::span<std::uint8_t> lengths) noexcept;
    template<bool Aligned>
    /// How far back a match lies. In an aligned block its low three bits have a code of their own.
    [[nodiscard]] std::uint32_t readDistance(BitStream& bits, unsigned slot) const noexcept;
    template<bool Aligned>
    /// Decodes one compressed block into the window.
    [[nodiscard]] bool decodeBlock(BitStream& bits, Window& window) noexcept;
    /// Copies one block that is stored plainly.
    [[nodiscard]] bool copyBlock(BitStream& bits, Window& window) noexcept;

    // The lengths outlive a block: the next one's are given as differences.
    std::array<std::uint8_t, kMainSymbols> mainLengths_;
    std::array<std::uint8_t, kLengthSymbols> lengthLengths_;
    std::array<std::uint32_t, 3> recent_; // distances of the last matches
    HuffmanCode<kMainSymbols, 16, 11> main_;
    HuffmanCode<kLengthSymbols, 16, 9> length_;
    HuffmanCode<kAlignedSymbols, 7, 7> aligned_;
    /// False when no match of the block is long enough to need it.
    bool hasLengthCode_;
};

} // namespace tavelin::compression
