#include "compression/chunks.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

namespace tavelin::compression {

/// Names the format in the names of tests.
static void PrintTo(Format format, std::ostream* to) {
    static constexpr const char* kNames[] = {"xpress4K", "lzx32K", "xpress8K", "xpress16K"};
    *to << kNames[static_cast<unsigned>(format)];
}

} // namespace tavelin::compression

namespace tavelin::test {
namespace {

using compression::Format;

/// Damages a chunk. Ours may refuse what libwim puts up with, such as bits past the end; but what
/// it accepts must be what libwim makes of it.
bool damagedIsAgreedOn(Format format, Oracle& oracle, std::mt19937_64& random, Bytes input,
                       std::size_t size) {
    const std::size_t bits = 1 + below(random, 3);
    for (std::size_t i = 0; i < bits; i++) {
        const std::size_t area =
            below(random, 2) == 0 ? std::min<std::size_t>(input.size(), 300) : input.size();
        input[below(random, area)] ^= static_cast<std::uint8_t>(1U << below(random, 8));
    }
    if (below(random, 8) == 0) {
        input.resize(1 + below(random, input.size()));
    }
    Bytes ours(size);
    Bytes theirs(size);
    return !decode(format, input, ours) || (oracle.decompress(input, theirs) && ours == theirs);
}

class Decoders : public testing::TestWithParam<Format> {};

INSTANTIATE_TEST_SUITE_P(Formats, Decoders,
                         testing::Values(Format::xpress4K, Format::lzx32K, Format::xpress8K,
                                         Format::xpress16K),
                         testing::PrintToStringParamName());

// TAVELIN_CHUNKS and TAVELIN_CHUNK_SEED run something else than usual.
TEST_P(Decoders, AgreeWithLibwimOnRandomChunks) {
    const auto number = [](const char* variable, std::uint64_t usual) {
        const char* const text = std::getenv(variable);
        return text == nullptr ? usual : std::strtoull(text, nullptr, 10);
    };
    const Format format = GetParam();
    std::mt19937_64 random(number("TAVELIN_CHUNK_SEED", 20'260'101));
    Oracle oracles[] = {Oracle(format, 10), Oracle(format, 50), Oracle(format, 90)};
    const std::uint64_t count = number("TAVELIN_CHUNKS", 400);
    std::uint64_t compressed = 0;
    for (std::uint64_t i = 0; i < count; i++) {
        SCOPED_TRACE(i);
        // The last chunk of a file has any size.
        const std::size_t most = compression::chunkSize(format);
        const Bytes chunk =
            makeChunk(random, below(random, 4) == 0 ? most : 64 + below(random, most - 64));
        // The thorough levels take ten times as long, and differ little from the quick one.
        const std::size_t level = below(random, 64);
        const Bytes packed = oracles[level < 54 ? 0 : level < 62 ? 1 : 2].compress(chunk);
        Bytes output(chunk.size());
        if (!packed.empty()) {
            ASSERT_TRUE(decode(format, packed, output));
            ASSERT_TRUE(output == chunk);
            compressed++;
        }
        // What cannot be compressed is noise to the decoders.
        ASSERT_TRUE(damagedIsAgreedOn(format, oracles[0], random, packed.empty() ? chunk : packed,
                                      chunk.size()));
    }
    EXPECT_GT(compressed, count / 2);
}

TEST_P(Decoders, RefuseAChunkThatIsCutOff) {
    std::mt19937_64 random(7);
    Oracle oracle(GetParam());
    for (int i = 0; i < 20; i++) {
        const Bytes chunk = makeChunk(random, 2000);
        const Bytes packed = oracle.compress(chunk);
        for (std::size_t size = 0; size < packed.size(); size++) {
            Bytes output(chunk.size());
            // The last word may be all padding.
            ASSERT_TRUE(!decode(GetParam(), std::span(packed).first(size), output) ||
                        (output == chunk && size + 4 >= packed.size()))
                << size << " of " << packed.size();
        }
    }
}

/// Writes LZX by hand: what libwim's encoder never makes.
class LzxWriter {
  public:
    void put(std::uint32_t value, unsigned bits) {
        for (unsigned bit = bits; bit-- > 0;) {
            word_ = word_ << 1 | (value >> bit & 1);
            if (++count_ % 16 == 0) {
                flushWord();
            }
        }
    }

    /// A block of plain bytes, with the recent distances that it sets.
    void putUncompressed(std::span<const std::uint8_t> bytes, std::uint32_t distance) {
        put(3, 3);
        put(0, 1);
        put(static_cast<std::uint32_t>(bytes.size()), 16);
        do { // up to a word's end, by one bit at least
            put(0, 1);
        } while (count_ % 16 != 0);
        for (int i = 0; i < 3; i++) {
            for (unsigned shift = 0; shift < 32; shift += 8) {
                output_.push_back(static_cast<std::uint8_t>(distance >> shift));
            }
        }
        output_.insert(output_.end(), bytes.begin(), bytes.end());
        if (bytes.size() % 2 != 0) {
            output_.push_back(0);
        }
    }

    /// A block of two matches with the most recent distance, of 2 bytes each, and no literals.
    void putRepeats() {
        put(1, 3);
        put(0, 1);
        put(4, 16);
        putLengths(256, {});
        putLengths(240, {{0, 1}, {1, 1}}); // slot 0, lengths 2 and 3
        putLengths(249, {});
        put(0, 2);
    }

    [[nodiscard]] const Bytes& output() const { return output_; }

  private:
    /// Code lengths that are zero but for those named, which come first. As the block is the first
    /// one with codes, the differences are to zero.
    void putLengths(unsigned symbols, const std::vector<std::pair<unsigned, unsigned>>& ones) {
        // The code for the differences: 16 (a length of 1) and 17 (4 to 19 zeros) and 0.
        for (unsigned symbol = 0; symbol < 20; symbol++) {
            put(symbol == 17 ? 1 : symbol == 16 || symbol == 0 ? 2 : 0, 4);
        }
        const auto putZero = [&] { put(2, 2); };
        unsigned next = static_cast<unsigned>(ones.size());
        for (unsigned i = 0; i < next; i++) {
            put(3, 2);
        }
        for (; symbols - next >= 19; next += 19) {
            put(0, 1);
            put(15, 4);
        }
        for (; next < symbols; next++) {
            putZero();
        }
    }

    void flushWord() {
        output_.push_back(static_cast<std::uint8_t>(word_));
        output_.push_back(static_cast<std::uint8_t>(word_ >> 8));
        word_ = 0;
    }

    Bytes output_;
    std::uint32_t word_ = 0;
    unsigned count_ = 0;
};

void expectAsLibwim(const LzxWriter& writer, std::size_t size, bool isValid) {
    Oracle oracle(Format::lzx32K);
    Bytes ours(size);
    Bytes theirs(size);
    EXPECT_EQ(decode(Format::lzx32K, writer.output(), ours), isValid);
    EXPECT_EQ(oracle.decompress(writer.output(), theirs), isValid);
    if (isValid) {
        EXPECT_EQ(ours, theirs);
    }
}

TEST(LzxDecoder, ReadsUncompressedBlocksBetweenOthers) {
    const Bytes bytes = {'a', 'b', 'c', 'd', 'e'};
    for (const std::uint32_t distance : {1U, 5U, 6U, 0U, 0xffffffffU}) {
        LzxWriter writer;
        writer.putUncompressed(bytes, distance);
        writer.putRepeats();
        writer.putUncompressed(std::span(bytes).first(4), 1);
        SCOPED_TRACE(distance);
        expectAsLibwim(writer, 13, distance == 1 || distance == 5);
    }
}

TEST(LzxDecoder, TranslatesCallsUpToTheLastTenBytes) {
    for (const std::size_t size : {5U, 9U, 10U, 11U, 12U, 20U, 64U}) {
        for (std::size_t position = 0; position + 5 <= size; position++) {
            for (const std::uint32_t target : {0U, 5U, 11'999'999U, 12'000'000U, 0xffffffffU,
                                               0U - static_cast<std::uint32_t>(position)}) {
                Bytes bytes(size, 0x11);
                bytes[position] = 0xe8;
                std::memcpy(&bytes[position + 1], &target, sizeof target);
                LzxWriter writer;
                writer.putUncompressed(bytes, 1);
                SCOPED_TRACE(testing::Message() << size << " " << position << " " << target);
                expectAsLibwim(writer, size, true);
            }
        }
    }
}

} // namespace
} // namespace tavelin::test
