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
    EXPECT_GT(report.images[Cut::prefix], 500u);
}

// The oracle itself must notice: a volume that is not as was promised, and a persistence point that
// is none, without a flush or with nothing written.
TEST(PowerCut, TheOracleSeesWhatIsNotAsPromised) {
    const Bytes base = preparedVolume();
    for (const Workload& change : allChanges()) {
        const Script script{{&change}, Finish::unmount};
        const Recording sound = recordTavelin(base, script);
        Recording undone = sound;
        undone.states.back() = undone.states.front();
        EXPECT_FALSE(tryRecording(base, script, undone, {{Cut::prefix}}).isSound()) << change.name;
        Recording unflushed = sound;
        std::erase_if(unflushed.events, [](const DiskEvent& event) { return event.flush; });
        unflushed.persistedAt.back() = unflushed.events.size();
        EXPECT_FALSE(tryRecording(base, script, unflushed, {{Cut::dropped}}).isSound())
            << change.name;
        Recording empty = sound;
        empty.events = {{true, 0, {}}};
        empty.persistedAt.back() = 1;
        EXPECT_FALSE(tryRecording(base, script, empty, {}).isSound()) << change.name;
    }
}

} // namespace
} // namespace tavelin::test
