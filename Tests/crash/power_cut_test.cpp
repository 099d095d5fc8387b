// The short form of script/crash: single operations, few reorderings.
#include "crash/power_cut.hpp"

#include <gtest/gtest.h>

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
    for (const Fault fault : {Fault::unreadable, Fault::lost, Fault::damaged, Fault::strange}) {
        EXPECT_EQ(verdict.count(fault), 0u) << faultName(fault) << "\n" << text(verdict);
    }
    // Only a page of the root folder or of its file record that is cut in two keeps a volume from
    // being mounted.
    for (const Cut cut : {Cut::prefix, Cut::tornPages, Cut::reordered}) {
        EXPECT_EQ(verdict.faults[cut][Fault::notMountable], 0u) << cutName(cut) << text(verdict);
    }
    // A file that is moved keeps a name, unless the disk itself changes the order of two writes.
    for (const Cut cut : {Cut::prefix, Cut::torn, Cut::tornPages}) {
        EXPECT_EQ(verdict.faults[cut][Fault::moved], 0u) << cutName(cut) << text(verdict);
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
