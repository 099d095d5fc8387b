// libFuzzer's entry for the decoders and the reader of compressed streams. The first two bytes
// choose the format and the size of the file, the rest is the stream.
#include "compression/chunk_reader.hpp"

#include <algorithm>
#include <cerrno>

namespace {

using namespace tavelin;

int readStream(std::span<const std::uint8_t> stream, std::uint64_t offset,
               std::span<std::uint8_t> to) {
    if (offset > stream.size() || to.size() > stream.size() - offset) {
        __builtin_trap(); // the reader was told the size
    }
    std::copy_n(stream.begin() + static_cast<std::ptrdiff_t>(offset), to.size(), to.begin());
    return 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static std::uint8_t output[65536];
    static compression::XpressDecoder xpress;
    static compression::LzxDecoder lzx;
    if (size < 2) {
        return 0;
    }
    const std::span<const std::uint8_t> stream(data + 2, size - 2);
    const std::size_t outputSize = std::size_t{data[1]} * (data[0] & 0x80 ? 16 : 1);
    switch (data[0] % 4) {
    case 0:
    case 1:
        (void)xpress.decode(stream, std::span(output).first(outputSize));
        break;
    case 2:
        (void)lzx.decode(stream, std::span(output).first(outputSize));
        break;
    default: {
        using compression::ChunkReader;
        static const auto source = [](std::span<const std::uint8_t> bytes) {
            return [bytes](std::uint64_t offset, std::span<std::uint8_t> to) {
                return readStream(bytes, offset, to);
            };
        };
        const auto format = static_cast<compression::Format>(data[0] / 4 % 5);
        const auto reader = ChunkReader::create(format, outputSize * 2, stream.size());
        std::size_t count = 0;
        const std::size_t offset = data[0] / 16;
        const std::size_t expected =
            std::min(outputSize * 2 - std::min(offset, outputSize * 2), sizeof output);
        if (reader && reader->read(source(stream), offset, output, count) == 0 &&
            count != expected) {
            __builtin_trap();
        }
    }
    }
    return 0;
}
