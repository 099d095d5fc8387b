// The short form of script/crash: single operations, few reorderings.
#include "crash/power_cut.hpp"

#include <gtest/gtest.h>

#include <algorithm>

namespace tavelin::test {
namespace {

std::string text(const CrashReport& report) {
    std::string lines;
    for (const std::string& example : report.examples) {
        lines += example + "\n";
    }
    return lines;
}

const Operation& named(const char* name) {
    const auto& all = allOperations();
    return *std::find_if(all.begin(), all.end(), [&](auto& op) { return op.name == name; });
}

TEST(PowerCut, LosesAndDamagesNothingThatWasPersisted) {
    const Bytes base = preparedVolume();
    CrashReport report;
    for (const Script& script : allScripts(false)) {
        report.add(tryScript(base, script, {}));
    }
    // A pair whose flush writes more pages in a row than any of them.
    report.add(
        tryScript(base, {{&named("create many"), &named("remove many")}, Finish::unmount}, {}));
    for (const Fault fault : kAllFaults) {
        EXPECT_EQ(report.count(fault), 0u) << faultName(fault) << "\n" << text(report);
    }
    EXPECT_GT(report.persisted, report.cutPoints) << "the cuts compared nothing";
}

// The oracle itself must notice: a persisted file that is taken away or changed afterwards.
TEST(PowerCut, TheOracleSeesLossAndDamage) {
    const Bytes base = preparedVolume();
    Operation silentLoss = named("unlink");
    silentLoss.touches.clear();
    Operation silentDamage = named("overwrite");
    silentDamage.touches.clear();
    EXPECT_GT(tryScript(base, {{&silentLoss}, Finish::unmount}, {}).count(Fault::lost), 0u);
    EXPECT_GT(tryScript(base, {{&silentDamage}, Finish::unmount}, {}).count(Fault::damaged), 0u);
}

// And a persistence point that is none: without a flush, or with nothing written.
TEST(PowerCut, TheOracleSeesAPersistencePointThatIsNone) {
    const Bytes base = preparedVolume();
    for (const Operation& operation : allOperations()) {
        const Script script{{&operation}, Finish::unmount};
        Recording recording = recordTavelin(base, script);
        std::erase_if(recording.events, [](const DiskEvent& event) { return event.flush; });
        recording.persistedAt.back() = recording.events.size();
        EXPECT_FALSE(tryRecording(base, script, recording, {{Cut::dropped}}).isSound())
            << operation.name;
        recording.events = {{true, 0, {}}};
        recording.persistedAt.back() = 1;
        EXPECT_FALSE(tryRecording(base, script, recording, {}).isSound()) << operation.name;
    }
}

} // namespace
} // namespace tavelin::test
