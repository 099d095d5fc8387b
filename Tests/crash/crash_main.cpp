// crash_lab [--pairs] [--seed N]: cuts the power at every write of many small scripts and prints
// what was left. Exits 1 when a promise was broken.
#include "crash/power_cut.hpp"

#include <fmt/core.h>

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
    Verdict verdict;
    for (const Script& script : allScripts(pairs)) {
        verdict.add(tryScript(base, script, cuts));
    }
    fmt::print("scripts            {:>10}\ncut points         {:>10}\nimages mounted     {:>10}\n"
               "promises compared  {:>10}\n",
               verdict.scripts, verdict.cutPoints, verdict.images, verdict.promises);
    for (const Fault fault :
         {Fault::notMountable, Fault::unreadable, Fault::lost, Fault::damaged, Fault::strange}) {
        fmt::print("{:<18} {:>10}\n", faultName(fault), verdict.faults[fault]);
    }
    for (const std::string& example : verdict.examples) {
        fmt::print("  {}\n", example);
    }
    std::uint64_t broken = 0;
    for (const auto& [fault, number] : verdict.faults) {
        broken += number;
    }
    return broken == 0 ? 0 : 1;
}
