// crash_lab [--pairs] [--seed N]: cuts the power at every write of many small scripts and prints
// what was left. With --neighbours other systems are at the volume between the cut and the next
// mount, after single changes and every 25th pair. Exits 1 when anything was wrong with any image.
#include "crash/neighbours.hpp"
#include "crash/power_cut.hpp"

#include <fmt/format.h>

#include <cstdlib>
#include <string_view>

namespace {

using namespace tavelin::test;

int runNeighbours(const Bytes& base) {
    constexpr std::size_t kPairsPerSample = 25;
    NeighbourReport report;
    std::size_t pairs = 0;
    for (const Script& script : allScripts(true)) {
        if (script.changes.size() == 1 || pairs++ % kPairsPerSample == 0) {
            report.add(tryNeighbours(base, script));
        }
    }
    fmt::print("{}", report.table());
    return report.isSound() ? 0 : 1;
}

} // namespace

int main(int count, char** words) {
    bool pairs = false;
    bool neighbours = false;
    Cuts cuts;
    for (int i = 1; i < count; i++) {
        const std::string_view word = words[i];
        if (word == "--pairs") {
            pairs = true;
        } else if (word == "--neighbours") {
            neighbours = true;
        } else if (word == "--seed" && i + 1 < count) {
            cuts.seed = std::strtoull(words[++i], nullptr, 10);
        } else {
            fmt::print(stderr, "usage: crash_lab [--pairs | --neighbours] [--seed N]\n");
            return 2;
        }
    }
    const Bytes base = preparedVolume();
    if (neighbours) {
        return runNeighbours(base);
    }
    cuts.imagesPerCheck = pairs ? 16 : 1;
    CrashReport report;
    for (const Script& script : allScripts(pairs)) {
        report.add(tryScript(base, script, cuts));
    }
    fmt::print("{}", report.table());
    return report.isSound() ? 0 : 1;
}
