#include "compression/chunks.hpp"

#include <algorithm>

namespace tavelin::test {

std::size_t below(std::mt19937_64& random, std::size_t limit) {
    return static_cast<std::size_t>(random() % limit);
}

namespace {

void addText(std::mt19937_64& random, Bytes& chunk, std::size_t count) {
    static constexpr const char* kWords[] = {"the ",    "volume ", "holds ",   "a",  "\r\n",
                                             "record ", "of ",     "clusters", ", ", "0x"};
    for (const std::size_t end = chunk.size() + count; chunk.size() < end;) {
        const std::string word = kWords[below(random, std::size(kWords))];
        chunk.insert(chunk.end(), word.begin(), word.end());
    }
}

void addCalls(std::mt19937_64& random, Bytes& chunk, std::size_t count) {
    for (const std::size_t end = chunk.size() + count; chunk.size() < end;) {
        chunk.push_back(below(random, 3) == 0 ? 0xe8 : static_cast<std::uint8_t>(random() % 64));
        const auto target = static_cast<std::uint32_t>(random() >> (below(random, 5) * 8));
        for (unsigned i = 0; i < 4; i++) {
            chunk.push_back(static_cast<std::uint8_t>(target >> (8 * i)));
        }
    }
}

void addRuns(std::mt19937_64& random, Bytes& chunk, std::size_t count) {
    for (const std::size_t end = chunk.size() + count; chunk.size() < end;) {
        chunk.insert(chunk.end(), 1 + below(random, std::size_t{1} << below(random, 16)),
                     static_cast<std::uint8_t>(random()));
    }
}

void addRecords(std::mt19937_64& random, Bytes& chunk, std::size_t count) {
    const std::size_t period = 1 + below(random, 40);
    const auto difference = static_cast<std::uint8_t>(random());
    for (std::size_t i = 0; i < count; i++) {
        chunk.push_back(static_cast<std::uint8_t>(i % period * difference + i / period % 7));
    }
}

/// Bytes of a steep distribution, which makes for long code words.
void addNoise(std::mt19937_64& random, Bytes& chunk, std::size_t count) {
    const unsigned steepness = static_cast<unsigned>(below(random, 8));
    for (std::size_t i = 0; i < count; i++) {
        std::uint64_t value = random();
        for (unsigned j = 0; j < steepness; j++) {
            value &= random() | ~0xffU;
        }
        chunk.push_back(static_cast<std::uint8_t>(value));
    }
}

} // namespace

Bytes makeChunk(std::mt19937_64& random, std::size_t sizeMax) {
    static constexpr auto kKinds = {addText, addCalls, addRuns, addRecords, addNoise};
    const std::size_t size = below(random, 4) == 0 ? 1 + below(random, sizeMax) : sizeMax;
    Bytes chunk;
    while (chunk.size() < size) {
        const std::size_t count = below(random, 3) == 0 ? size : 1 + below(random, size);
        kKinds.begin()[below(random, kKinds.size())](random, chunk, count);
    }
    chunk.resize(size);
    return chunk;
}

bool decode(compression::Format format, std::span<const std::uint8_t> input,
            std::span<std::uint8_t> output) {
    static thread_local compression::XpressDecoder xpress;
    static thread_local compression::LzxDecoder lzx;
    return format == compression::Format::lzx32K ? lzx.decode(input, output)
                                                 : xpress.decode(input, output);
}

} // namespace tavelin::test
