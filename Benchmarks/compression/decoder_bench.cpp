// Decompressed bytes a second, ours and libwim's, over machine code.
#include "compression/oracle.hpp"

#include <benchmark/benchmark.h>

#include <fstream>
#include <iterator>

namespace {

using namespace tavelin;
using compression::Format;

/// The chunks of the first 8 MiB of SAMPLE_FILE, as far as they can be compressed.
struct Sample {
    explicit Sample(Format format) : size(compression::chunkSize(format)), oracle(format) {
        std::ifstream file(SAMPLE_FILE, std::ios::binary);
        test::Bytes bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
        bytes.resize(std::min<std::size_t>(bytes.size(), 8 << 20));
        for (std::size_t at = 0; at + size <= bytes.size(); at += size) {
            if (auto packed = oracle.compress(std::span(bytes).subspan(at, size));
                !packed.empty()) {
                chunks.push_back(std::move(packed));
            }
        }
    }

    std::size_t size;
    test::Oracle oracle;
    std::vector<test::Bytes> chunks;
};

template<typename Decode>
void measure(benchmark::State& state, const Sample& sample, const Decode& decode) {
    test::Bytes output(sample.size);
    for (auto _ : state) {
        for (const test::Bytes& chunk : sample.chunks) {
            if (!decode(chunk, output)) {
                state.SkipWithError("a chunk was refused");
                return;
            }
            benchmark::DoNotOptimize(output.data());
        }
    }
    state.SetBytesProcessed(
        static_cast<std::int64_t>(state.iterations() * sample.chunks.size() * sample.size));
}

void ours(benchmark::State& state, Format format) {
    const Sample sample(format);
    if (format == Format::lzx32K) {
        compression::LzxDecoder decoder;
        measure(state, sample, [&](const auto& in, auto& out) { return decoder.decode(in, out); });
    } else {
        compression::XpressDecoder decoder;
        measure(state, sample, [&](const auto& in, auto& out) { return decoder.decode(in, out); });
    }
}

void libwim(benchmark::State& state, Format format) {
    Sample sample(format);
    measure(state, sample,
            [&](const auto& in, auto& out) { return sample.oracle.decompress(in, out); });
}

BENCHMARK_CAPTURE(ours, xpress4K, Format::xpress4K);
BENCHMARK_CAPTURE(libwim, xpress4K, Format::xpress4K);
BENCHMARK_CAPTURE(ours, xpress8K, Format::xpress8K);
BENCHMARK_CAPTURE(libwim, xpress8K, Format::xpress8K);
BENCHMARK_CAPTURE(ours, xpress16K, Format::xpress16K);
BENCHMARK_CAPTURE(libwim, xpress16K, Format::xpress16K);
BENCHMARK_CAPTURE(ours, lzx32K, Format::lzx32K);
BENCHMARK_CAPTURE(libwim, lzx32K, Format::lzx32K);

} // namespace

BENCHMARK_MAIN();
