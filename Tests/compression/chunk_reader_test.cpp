#include "compression/chunks.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>

namespace tavelin::test {
namespace {

using compression::ChunkReader;
using compression::Format;

/// A compressed stream in memory, and what was asked of it.
struct Stream {
    Bytes bytes;
    int reads = 0;
    int error = 0;

    ChunkReader::Source source() {
        return [this](std::uint64_t offset, std::span<std::uint8_t> to) {
            reads++;
            EXPECT_LE(offset + to.size(), bytes.size());
            std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(offset), to.size(), to.begin());
            return error;
        };
    }
};

Bytes makeFile(std::size_t size) {
    std::mt19937_64 random(size);
    Bytes file;
    while (file.size() < size) {
        const Bytes piece = makeChunk(random, 10'000);
        file.insert(file.end(), piece.begin(), piece.end());
    }
    file.resize(size);
    return file;
}

TEST(ChunkReader, ReadsAnyPieceOfAnySize) {
    for (const Format format :
         {Format::xpress4K, Format::xpress8K, Format::xpress16K, Format::lzx32K}) {
        const std::size_t chunk = compression::chunkSize(format);
        for (const std::size_t size : {std::size_t{0}, std::size_t{1}, chunk - 1, chunk, chunk + 1,
                                       3 * chunk, 40 * chunk + 77}) {
            const Bytes file = makeFile(size);
            Stream stream{compressedStream(format, file)};
            const auto reader = ChunkReader::create(format, size, stream.bytes.size());
            ASSERT_NE(reader, nullptr);
            std::mt19937_64 random(1);
            for (int i = 0; i < 100; i++) {
                const std::size_t offset = i == 0 ? 0 : random() % (size + 10);
                Bytes to(i == 0 ? size + 10 : random() % (3 * chunk) + 1);
                std::size_t count = 0;
                ASSERT_EQ(reader->read(stream.source(), offset, to, count), 0);
                const std::size_t expected =
                    offset >= size ? 0 : std::min(to.size(), size - offset);
                ASSERT_EQ(count, expected);
                ASSERT_TRUE(
                    std::equal(to.begin(), to.begin() + static_cast<std::ptrdiff_t>(count),
                               file.begin() + static_cast<std::ptrdiff_t>(std::min(offset, size))));
            }
        }
    }
}

TEST(ChunkReader, ReadsCachedChunksWithoutTheSource) {
    const Bytes file = makeFile(ChunkReader::kCacheSize);
    Stream stream{compressedStream(Format::xpress4K, file)};
    const auto reader = ChunkReader::create(Format::xpress4K, file.size(), stream.bytes.size());
    Bytes to(100);
    std::size_t count = 0;
    const auto readAll = [&] {
        for (std::size_t offset = 0; offset < file.size(); offset += 4096) {
            ASSERT_EQ(reader->read(stream.source(), offset, to, count), 0);
        }
    };
    readAll();
    const int before = stream.reads;
    readAll();
    EXPECT_EQ(stream.reads, before);
}

TEST(ChunkReader, AnswersTheSourcesErrorAndRecovers) {
    const Bytes file = makeFile(100'000);
    Stream stream{compressedStream(Format::lzx32K, file)};
    const auto reader = ChunkReader::create(Format::lzx32K, file.size(), stream.bytes.size());
    Bytes to(file.size());
    std::size_t count = 0;
    stream.error = ENXIO;
    EXPECT_EQ(reader->read(stream.source(), 50'000, to, count), ENXIO);
    EXPECT_EQ(count, 0U);
    stream.error = 0;
    EXPECT_EQ(reader->read(stream.source(), 0, to, count), 0);
    EXPECT_EQ(to, file);
}

TEST(ChunkReader, AnswersDamageWithAnError) {
    const Bytes file(20'000, 'x');
    const Bytes sound = compressedStream(Format::xpress4K, file);
    EXPECT_EQ(ChunkReader::create(static_cast<Format>(4), 1, 100), nullptr);
    EXPECT_EQ(ChunkReader::create(Format::xpress4K, file.size(), 15), nullptr);
    EXPECT_EQ(ChunkReader::create(Format::xpress4K, ~std::uint64_t{0}, 15), nullptr);

    // The table has the offsets of chunks 1 to 4: each damage hurts chunk 2, and not chunk 0.
    std::uint32_t next = 0;
    std::memcpy(&next, &sound[8], sizeof next);
    for (const std::uint32_t offset : {next, next + 1, 0x7fffffffU, 0xffffffffU}) {
        Stream stream{sound};
        std::memcpy(&stream.bytes[4], &offset, sizeof offset);
        const auto reader = ChunkReader::create(Format::xpress4K, file.size(), sound.size());
        Bytes to(4096);
        std::size_t count = 1;
        EXPECT_EQ(reader->read(stream.source(), 0, to, count), 0);
        EXPECT_EQ(reader->read(stream.source(), 2 * 4096 + 5, to, count), EIO) << offset;
        EXPECT_EQ(count, 0U);
    }
}

/// A stream that is too large to have: all chunks are equal, none is there twice.
TEST(ChunkReader, ReadsWideTables) {
    constexpr std::uint64_t kSize = (std::uint64_t{1} << 32) + 100;
    const Bytes chunk(4096, 'w');
    const Bytes packed = Oracle(Format::xpress4K).compress(chunk);
    const Bytes last(100, 'z');
    const std::uint64_t chunks = (kSize + 4095) / 4096;
    const std::uint64_t table = (chunks - 1) * 8;
    const std::uint64_t end = table + (chunks - 1) * packed.size();
    const ChunkReader::Source source = [&](std::uint64_t offset, std::span<std::uint8_t> to) {
        for (std::size_t i = 0; i < to.size(); i++) {
            const std::uint64_t at = offset + i;
            to[i] = at < table
                        ? static_cast<std::uint8_t>((at / 8 + 1) * packed.size() >> (at % 8 * 8))
                    : at < end ? packed[(at - table) % packed.size()]
                               : last[at - end];
        }
        return 0;
    };
    const auto reader = ChunkReader::create(Format::xpress4K, kSize, end + last.size());
    Bytes to(5000);
    std::size_t count = 0;
    ASSERT_EQ(reader->read(source, kSize - 200, to, count), 0);
    Bytes expected(100, 'w');
    expected.insert(expected.end(), last.begin(), last.end());
    to.resize(count);
    EXPECT_EQ(to, expected);
}

} // namespace
} // namespace tavelin::test
