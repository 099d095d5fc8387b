// The short form of script/crash: single operations, few reorderings.
#include "crash/power_cut.hpp"

#include <gtest/gtest.h>

#include <algorithm>

namespace tavelin::test {
namespace {

std::string text(const Verdict& verdict) {
    std::string lines;
    for (const std::string& example : verdict.examples) {
        lines += example + "\n";
    }
    return lines;
}

TEST(PowerCut, LosesAndDamagesNothingThatWasPromised) {
    const Bytes base = preparedVolume();
    Verdict verdict;
    for (const Script& script : allScripts(false)) {
        verdict.add(tryScript(base, script, {}));
    }
    // A pair whose flush writes more pages in a row than any of them.
    const auto named = [](const char* name) {
        const auto& all = allOperations();
        return &*std::find_if(all.begin(), all.end(), [&](auto& op) { return op.name == name; });
    };
    verdict.add(
        tryScript(base, {{named("create many"), named("remove many")}, Finish::unmount}, {}));
    for (const Fault fault : kAllFaults) {
        EXPECT_EQ(verdict.count(fault), 0u) << faultName(fault) << "\n" << text(verdict);
    }
    EXPECT_GT(verdict.promises, verdict.cutPoints) << "the cuts compared nothing";
}

// The judge itself must notice: a volume whose promised file is taken away or changed afterwards.
TEST(PowerCut, TheJudgeSeesLossAndDamage) {
    const Bytes base = preparedVolume();
    const auto operation = [](const char* name) {
        for (const Operation& candidate : allOperations()) {
            if (candidate.name == name) {
                return candidate;
            }
        }
        throw std::out_of_range(name);
    };
    Operation silentLoss = operation("unlink");
    silentLoss.touches.clear();
    Operation silentDamage = operation("overwrite");
    silentDamage.touches.clear();
    EXPECT_GT(tryScript(base, {{&silentLoss}, Finish::unmount}, {}).count(Fault::lost), 0u);
    EXPECT_GT(tryScript(base, {{&silentDamage}, Finish::unmount}, {}).count(Fault::damaged), 0u);
}

} // namespace
} // namespace tavelin::test
