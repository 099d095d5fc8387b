// The short form of script/crash: single operations, few reorderings.
#include "lab/neighbours.hpp"
#include "lab/power_cut.hpp"

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
    // Records that replace pages of which nothing was left.
    for (const char* next : {"create many", "write"}) {
        report.add(tryScript(base, {{&named("trim"), &named(next)}, Finish::synchronise}, {}));
    }
    EXPECT_TRUE(report.isSound()) << report.describe();
    EXPECT_GT(report.images[Cut::prefix], 500u);
}

// The short form of script/crash --recoveries.
TEST(PowerCut, ComesToTheSameEndWhenTheRecoveryIsCutOffToo) {
    const CrashReport report =
        tryRecoveries(preparedVolume(), {{&named("append")}, Finish::synchronise}, {});
    EXPECT_TRUE(report.isSound()) << report.describe();
    EXPECT_GT(report.completed.at(Cut::reordered), 20u);
}

// The short form of script/crash --neighbours.
TEST(PowerCut, LosesNothingThatAnotherSystemWroteInBetween) {
    const Bytes base = preparedVolume();
    NeighbourReport report;
    for (const char* name : {"append", "rename across", "label"}) {
        report.add(tryNeighbours(base, {{&named(name)}, Finish::synchronise}));
    }
    EXPECT_TRUE(report.isSound()) << report.table();
    for (const auto& [neighbour, counts] : report.counts) {
        EXPECT_GT(counts.images, 10u);
    }
    using enum Neighbour;
    EXPECT_GT(report.counts[nothing].replayed, 3u);
    EXPECT_GT(report.counts[driver].discarded, 3u);
    EXPECT_GT(report.counts[driverWithoutLog].refused, 3u);
    EXPECT_GT(report.counts[journaledPage].refused, 3u);
    EXPECT_GT(report.counts[otherPage].replayed, 3u);
    EXPECT_GT(report.counts[restartPage].discarded, 3u);
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
