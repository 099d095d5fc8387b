// The short form of script/crash: single operations, few reorderings.
#include "crash/power_cut.hpp"

#include <gtest/gtest.h>

#include <algorithm>

namespace tavelin::test {
namespace {

std::string text(const CrashReport& verdict) {
    std::string lines;
    for (const std::string& example : verdict.examples) {
        lines += example + "\n";
    }
    return lines;
}

const Operation& named(const char* name) {
    const auto& all = allOperations();
    return *std::find_if(all.begin(), all.end(), [&](auto& op) { return op.name == name; });
}

TEST(PowerCut, LosesAndDamagesNothingThatWasPromised) {
    const Bytes base = preparedVolume();
    CrashReport verdict;
    for (const Script& script : allScripts(false)) {
        verdict.add(tryScript(base, script, {}));
    }
    // A pair whose flush writes more pages in a row than any of them.
    verdict.add(
        tryScript(base, {{&named("create many"), &named("remove many")}, Finish::unmount}, {}));
    for (const Fault fault : kAllFaults) {
        EXPECT_EQ(verdict.count(fault), 0u) << faultName(fault) << "\n" << text(verdict);
    }
    EXPECT_GT(verdict.promises, verdict.cutPoints) << "the cuts compared nothing";
}

// The judge itself must notice: a volume whose promised file is taken away or changed afterwards.
TEST(PowerCut, TheJudgeSeesLossAndDamage) {
    const Bytes base = preparedVolume();
    Operation silentLoss = named("unlink");
    silentLoss.touches.clear();
    Operation silentDamage = named("overwrite");
    silentDamage.touches.clear();
    EXPECT_GT(tryScript(base, {{&silentLoss}, Finish::unmount}, {}).count(Fault::lost), 0u);
    EXPECT_GT(tryScript(base, {{&silentDamage}, Finish::unmount}, {}).count(Fault::damaged), 0u);
}

// And a promise that was not kept: without a flush, or with nothing written.
TEST(PowerCut, TheJudgeSeesABrokenPromise) {
    const Bytes base = preparedVolume();
    for (const Operation& operation : allOperations()) {
        const Script script{{&operation}, Finish::unmount};
        Recording recording = recordTavelin(base, script);
        std::erase_if(recording.events, [](const DiskEvent& event) { return event.flush; });
        recording.promisedAt.back() = recording.events.size();
        EXPECT_FALSE(tryRecording(base, script, recording, {{Cut::dropped}}).isSound())
            << operation.name;
        recording.events = {{true, 0, {}}};
        recording.promisedAt.back() = 1;
        EXPECT_FALSE(tryRecording(base, script, recording, {}).isSound()) << operation.name;
    }
}

} // namespace
} // namespace tavelin::test
