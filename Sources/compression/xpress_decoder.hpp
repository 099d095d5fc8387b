/// Decoder of XPRESS Huffman chunks: LZ77 with one Huffman code, as Microsoft's [MS-XCA] describes
/// it (there "LZ77+Huffman"). The layout of a chunk: 512 code lengths of 4 bits each (256
/// literals; 256 combinations of a match's length and the bits of its distance), then one bit
/// stream, with long matches' lengths in bytes between its words.
#pragma once

#include "compression/private/huffman_code.hpp"

namespace tavelin::compression {

/// Holds the tables of one chunk at a time, about 6 KiB. One thread; allocates nothing.
class XpressDecoder {
  public:
    /// Decodes a chunk to exactly `output.size()` bytes, at most 64 KiB. False when the input is
    /// not a chunk of that size: the output's contents are then undefined. Never reads or writes
    /// outside of the two.
    [[nodiscard]] bool decode(std::span<const std::uint8_t> input,
                              std::span<std::uint8_t> output) noexcept;

  private:
    /// 256 literals and 256 kinds of matches.
    static constexpr unsigned kSymbols = 512;

    HuffmanCode<kSymbols, 15, 11> code_;
};

} // namespace tavelin::compression
