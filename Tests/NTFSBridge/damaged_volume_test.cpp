// Volumes whose structures say what cannot be. Each was found by feeding damaged ones to the stack.
#include "bridge_volume.hpp"

#include "NTFSBridge/volume.hpp"

#include <cstring>

namespace tavelin::test {
namespace {

TEST(DamagedVolume, OfMoreBytesThanANumberHoldsIsRefused) {
    const SampleVolume sample({.bytes = 4 << 20});
    MemoryIo device = MemoryIo::fromFile(sample.image());
    const uint64_t sectors = UINT64_C(1) << 58;
    std::memcpy(device.bytes().data() + 0x28, &sectors, sizeof sectors);
    for (const int32_t isReadOnly : {0, 1}) {
        int32_t error = 0;
        EXPECT_EQ(ntb_mount(&device.io(), isReadOnly, &error), nullptr);
        EXPECT_EQ(error, EIO);
    }
}

TEST(DamagedVolume, HasNoMoreFreeSpaceThanSpace) {
    BridgeVolume volume;
    ntb_vol* const handle = volume;
    handle->volume->free_clusters = handle->volume->nr_clusters + 100;
    ntb_statfs space = {};
    EXPECT_EQ(ntb_statfs_get(volume, &space), 0);
    EXPECT_EQ(space.freeClusters, space.totalClusters);
}

} // namespace
} // namespace tavelin::test
