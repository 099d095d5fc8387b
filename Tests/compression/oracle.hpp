/// libwim's encoders and decoders, to make chunks with and to compare with.
#pragma once

#include "compression/chunk_reader.hpp"

#include <wimlib.h>

namespace tavelin::test {

using Bytes = std::vector<std::uint8_t>;

/// One encoder and decoder for a format's chunks.
class Oracle {
  public:
    /// `level` is libwim's: 10 is fast, 50 its default, 100 thorough.
    explicit Oracle(compression::Format format, unsigned level = 50);

    /// The chunk's compressed form; empty when it would be no shorter.
    [[nodiscard]] Bytes compress(std::span<const std::uint8_t> chunk);

    /// Decodes to exactly `output.size()` bytes; false when libwim finds the input damaged.
    [[nodiscard]] bool decompress(std::span<const std::uint8_t> input,
                                  std::span<std::uint8_t> output);

  private:
    struct Freer {
        void operator()(wimlib_compressor* owned) const { wimlib_free_compressor(owned); }
        void operator()(wimlib_decompressor* owned) const { wimlib_free_decompressor(owned); }
    };

    std::unique_ptr<wimlib_compressor, Freer> compressor_;
    std::unique_ptr<wimlib_decompressor, Freer> decompressor_;
};

/// The contents of the stream WofCompressedData for a file with these bytes, fewer than 4 GiB.
[[nodiscard]] Bytes compressedStream(compression::Format format,
                                     std::span<const std::uint8_t> file);

} // namespace tavelin::test
