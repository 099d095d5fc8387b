// compare_chunks COUNT [SEED]: COUNT random chunks in each format through our decoders and those of
// libwim. Exits 1 at the first difference.
#include "compression/chunk_trial.hpp"

#include <fmt/core.h>

#include <charconv>
#include <string_view>

namespace {

using namespace tavelin;

bool parse(std::string_view text, std::uint64_t& value) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc{} && end == text.data() + text.size();
}

} // namespace

int main(int count, char** words) {
    std::uint64_t chunks = 0;
    std::uint64_t seed = 1;
    if (count < 2 || count > 3 || !parse(words[1], chunks) ||
        (count == 3 && !parse(words[2], seed))) {
        fmt::print(stderr, "usage: compare_chunks COUNT [SEED]\n");
        return 2;
    }
    using compression::Format;
    for (const Format format :
         {Format::xpress4K, Format::xpress8K, Format::xpress16K, Format::lzx32K}) {
        test::ChunkTrial trial(format, seed);
        for (std::uint64_t i = 0; i < chunks; i++) {
            if (const auto difference = trial.run()) {
                fmt::print(stderr, "format {}, seed {}, chunk {}: {}\n",
                           static_cast<unsigned>(format), seed, i, *difference);
                return 1;
            }
        }
        fmt::print("format {}: {} chunks equal, {} of them incompressible\n",
                   static_cast<unsigned>(format), chunks, trial.incompressible());
    }
    return 0;
}
