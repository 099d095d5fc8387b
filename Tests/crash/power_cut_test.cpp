// The short form of script/crash: single operations, few reorderings.
#include "crash/power_cut.hpp"

#include <gtest/gtest.h>

#include <algorithm>

namespace tavelin::test {
namespace {

const Workload& named(const char* name) {
    return *std::ranges::find(allChanges(), name, &Workload::name);
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
    EXPECT_TRUE(report.isSound()) << report.describe();
    EXPECT_GT(report.persisted, report.cutPoints) << "the cuts compared nothing";
}

// The oracle itself must notice: a persisted file that is taken away or changed afterwards.
TEST(PowerCut, TheOracleSeesLossAndDamage) {
    const Bytes base = preparedVolume();
    Workload silentLoss = named("unlink");
    silentLoss.touches.clear();
    Workload silentDamage = named("overwrite");
    silentDamage.touches.clear();
    EXPECT_TRUE(tryScript(base, {{&silentLoss}, Finish::unmount}, {}).faults.contains(Fault::lost));
    EXPECT_TRUE(
        tryScript(base, {{&silentDamage}, Finish::unmount}, {}).faults.contains(Fault::damaged));
}

// And a persistence point that is none: without a flush, or with nothing written.
TEST(PowerCut, TheOracleSeesAPersistencePointThatIsNone) {
    const Bytes base = preparedVolume();
    for (const Workload& change : allChanges()) {
        const Script script{{&change}, Finish::unmount};
        Recording recording = recordTavelin(base, script);
        std::erase_if(recording.events, [](const DiskEvent& event) { return event.flush; });
        recording.persistedAt.back() = recording.events.size();
        EXPECT_FALSE(tryRecording(base, script, recording, {{Cut::dropped}}).isSound())
            << change.name;
        recording.events = {{true, 0, {}}};
        recording.persistedAt.back() = 1;
        EXPECT_FALSE(tryRecording(base, script, recording, {}).isSound()) << change.name;
    }
}

} // namespace
} // namespace tavelin::test
