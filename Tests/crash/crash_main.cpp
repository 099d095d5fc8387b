// crash_lab [--pairs] [--seed N]: cuts the power at every write of many small scripts and prints
// what was left. With --recoveries the mount after the cut is cut off as well. With --neighbours
// other systems are at the volume between the cut and the next mount, after single changes and
// every 25th pair. Exits 1 when anything was wrong with any image.
#include "lab/neighbours.hpp"
#include "lab/power_cut.hpp"

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
    std::string_view mode;
    Cuts cuts;
    for (int i = 1; i < count; i++) {
        const std::string_view word = words[i];
        if (mode.empty() &&
            (word == "--pairs" || word == "--recoveries" || word == "--neighbours")) {
            mode = word;
        } else if (word == "--seed" && i + 1 < count) {
            cuts.seed = std::strtoull(words[++i], nullptr, 10);
        } else {
            fmt::print(stderr,
                       "usage: crash_lab [--pairs | --recoveries | --neighbours] [--seed N]\n");
            return 2;
        }
    }
    const Bytes base = preparedVolume();
    if (mode == "--neighbours") {
        return runNeighbours(base);
    }
    cuts.imagesPerCheck = mode == "--pairs" ? 16 : 1;
    CrashReport report;
    for (const Script& script : allScripts(mode == "--pairs")) {
        report.add(mode == "--recoveries" ? tryRecoveries(base, script, cuts)
                                          : tryScript(base, script, cuts));
    }
    fmt::print("{}", report.table());
    return report.isSound() ? 0 : 1;
}
