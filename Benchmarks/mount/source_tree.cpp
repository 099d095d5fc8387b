#include "Benchmarks/mount/source_tree.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <random>

namespace tavelin::bench {

void makeSourceTree(const std::filesystem::path& root, int files) {
    std::mt19937 random(20240229);
    std::lognormal_distribution<double> sizes(std::log(3500.0), 1.1);
    for (int i = 0; i < files; ++i) {
        const auto directory =
            root / fmt::format("module{:02}", i / 250) / fmt::format("part{:02}", i / 25 % 10);
        std::filesystem::create_directories(directory);
        std::ofstream file(directory / fmt::format("unit{:03}.c", i % 25));
        const int bytes = std::clamp(static_cast<int>(sizes(random)), 200, 200'000);
        for (int line = 0; file.tellp() < bytes; ++line)
            file << fmt::format("static int value_{}_{} = {};\n", i, line, random());
    }
}

} // namespace tavelin::bench
