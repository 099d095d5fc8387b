// Volumes of every shape that mkntfs makes: the model's run, and a few power cuts.
//
// mkntfs makes file records of 1 KiB, or of a sector where that is more, index blocks of 4 KiB
// always, and no clusters smaller than a sector.

#include "lab/model_run.hpp"
#include "lab/others_view.hpp"
#include "lab/power_cut.hpp"

#include <gtest/gtest.h>

namespace tavelin::test {

namespace {

constexpr std::uint32_t kKiB = 1 << 10;
constexpr std::uint64_t kMiB = 1 << 20;

std::string nameOfShape(const ::testing::TestParamInfo<VolumeGeometry>& chosen) {
    return "Clusters" + std::to_string(chosen.param.clusterSize) + "Sectors" +
           std::to_string(chosen.param.sectorSize);
}

class Shapes : public ::testing::TestWithParam<VolumeGeometry> {};

TEST_P(Shapes, AgreeWithTheModel) {
    const ModelRun run{.geometry = GetParam()};
    EXPECT_EQ(run.playRandom(GetParam().clusterSize + GetParam().sectorSize, 150), "");
}

INSTANTIATE_TEST_SUITE_P(, Shapes,
                         ::testing::Values(VolumeGeometry{64 * kMiB, 512, 512},
                                           VolumeGeometry{64 * kMiB, 4 * kKiB, 512},
                                           VolumeGeometry{256 * kMiB, 64 * kKiB, 512},
                                           VolumeGeometry{2048 * kMiB, 2048 * kKiB, 512},
                                           VolumeGeometry{64 * kMiB, 4 * kKiB, 4096},
                                           VolumeGeometry{256 * kMiB, 64 * kKiB, 4096},
                                           VolumeGeometry{2048 * kMiB, 2048 * kKiB, 4096}),
                         nameOfShape);

// Not those with clusters of 2 MiB: the library clears a new one as a whole, and on a volume that
// is small enough to be copied at every cut that is more than the journal carries over as one.
class ShapesCutOff : public ::testing::TestWithParam<VolumeGeometry> {};

TEST_P(ShapesCutOff, LoseNothing) {
    const Workload make{"make", {{Verb::mkdir, "d"}, {Verb::create, "d/file"}}};
    const Workload change{
        "change", {{Verb::write, "d/file", "", 0, 900, 1}, {Verb::rename, "d/file", "d/other"}}};
    const Bytes base = loadImage(SampleVolume(GetParam()).image());
    const Script script{{&make, &change}, Finish::synchronise};
    const Cuts cuts{.kinds = {Cut::prefix, Cut::dropped}};
    if (GetParam().clusterSize >= 4096) {
        const CrashReport report = tryScript(base, script, cuts);
        EXPECT_TRUE(report.isSound()) << report.describe();
        EXPECT_GT(report.completed.at(Cut::prefix), 0u);
        return;
    }
    // Clusters smaller than a page leave no room for a journal: the volume is marked, or sound.
    forEachCut(base, recordTavelin(base, script), cuts, [](const PowerCut& power) {
        EXPECT_EQ(unmarkedDamage(power.image), "") << "cut after event " << power.end;
    });
}

INSTANTIATE_TEST_SUITE_P(, ShapesCutOff,
                         ::testing::Values(VolumeGeometry{4 * kMiB, 512, 512},
                                           VolumeGeometry{4 * kMiB, 4 * kKiB, 512},
                                           VolumeGeometry{8 * kMiB, 64 * kKiB, 512},
                                           VolumeGeometry{4 * kMiB, 4 * kKiB, 4096},
                                           VolumeGeometry{8 * kMiB, 64 * kKiB, 4096}),
                         nameOfShape);

} // namespace

} // namespace tavelin::test
