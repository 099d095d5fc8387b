#include "compression/oracle.hpp"

#include <algorithm>
#include <stdexcept>

namespace tavelin::test {
namespace {

wimlib_compression_type typeOf(compression::Format format) {
    return format == compression::Format::lzx32K ? WIMLIB_COMPRESSION_TYPE_LZX
                                                 : WIMLIB_COMPRESSION_TYPE_XPRESS;
}

} // namespace

Oracle::Oracle(compression::Format format, unsigned level) {
    wimlib_compressor* compressor = nullptr;
    wimlib_decompressor* decompressor = nullptr;
    const std::size_t size = compression::chunkSize(format);
    const bool made = wimlib_create_compressor(typeOf(format), size, level, &compressor) == 0 &&
                      wimlib_create_decompressor(typeOf(format), size, &decompressor) == 0;
    compressor_.reset(compressor);
    decompressor_.reset(decompressor);
    if (!made) {
        throw std::runtime_error("libwim has no compressor or decompressor for the format");
    }
}

Bytes Oracle::compress(std::span<const std::uint8_t> chunk) {
    Bytes output(chunk.size() - 1);
    output.resize(wimlib_compress(chunk.data(), chunk.size(), output.data(), output.size(),
                                  compressor_.get()));
    return output;
}

bool Oracle::decompress(std::span<const std::uint8_t> input, std::span<std::uint8_t> output) {
    return wimlib_decompress(input.data(), input.size(), output.data(), output.size(),
                             decompressor_.get()) == 0;
}

Bytes compressedStream(compression::Format format, std::span<const std::uint8_t> file) {
    Oracle oracle(format);
    const std::size_t size = compression::chunkSize(format);
    const std::size_t count = (file.size() + size - 1) / size;
    Bytes table;
    Bytes chunks;
    for (std::size_t i = 0; i < count; i++) {
        const auto chunk = file.subspan(i * size, std::min(size, file.size() - i * size));
        if (i > 0) {
            const auto offset = static_cast<std::uint32_t>(chunks.size());
            const auto* const bytes = reinterpret_cast<const std::uint8_t*>(&offset);
            table.insert(table.end(), bytes, bytes + sizeof offset);
        }
        const Bytes packed = oracle.compress(chunk);
        const std::span<const std::uint8_t> stored = packed.empty() ? chunk : std::span(packed);
        chunks.insert(chunks.end(), stored.begin(), stored.end());
    }
    table.insert(table.end(), chunks.begin(), chunks.end());
    return table;
}

} // namespace tavelin::test
