// crash_lab [--pairs] [--seed N]: cuts the power at every write of many small scripts and prints
// what was left. Exits 1 when anything was wrong with any image.
#include "crash/power_cut.hpp"

#include <fmt/format.h>

#include <cstdlib>
#include <string_view>

int main(int count, char** words) {
    using namespace tavelin::test;
    bool pairs = false;
    Cuts cuts;
    for (int i = 1; i < count; i++) {
        const std::string_view word = words[i];
        if (word == "--pairs") {
            pairs = true;
        } else if (word == "--seed" && i + 1 < count) {
            cuts.seed = std::strtoull(words[++i], nullptr, 10);
        } else {
            fmt::print(stderr, "usage: crash_lab [--pairs] [--seed N]\n");
            return 2;
        }
    }
    const Bytes base = preparedVolume();
    cuts.imagesPerCheck = pairs ? 16 : 1;
    CrashReport report;
    for (const Script& script : allScripts(pairs)) {
        report.add(tryScript(base, script, cuts));
    }
    fmt::print("{}", report.table());
    return report.isSound() ? 0 : 1;
}
