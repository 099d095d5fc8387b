// Volumes whose structures say what cannot be. Each was found by feeding damaged ones to the stack.
#include "NTFSBridge/volume.hpp"
#include "support/bridge_volume.hpp"

#include <array>
#include <cstring>
#include <utility>

namespace tavelin::test {
namespace {

TEST(DamagedVolume, OfMoreBytesThanANumberHoldsIsRefused) {
    const SampleVolume sample({.bytes = 4 << 20});
    DiskIo device = DiskIo::fromFile(sample.image());
    const uint64_t sectors = UINT64_C(1) << 58;
    std::memcpy(device.bytes.data() + 0x28, &sectors, sizeof sectors);
    EXPECT_EQ(mountError(device), EIO);
    EXPECT_EQ(mountError(device, true), EIO);
}

TEST(DamagedVolume, HasNoMoreFreeSpaceThanSpace) {
    BridgeVolume volume;
    ntb_vol* const handle = volume;
    handle->volume->free_clusters = handle->volume->nr_clusters + 100;
    const ntb_statfs space = volume.space();
    EXPECT_EQ(space.freeClusters, space.totalClusters);
}

TEST(DamagedVolume, WhoseBitmapEndsEarlyHasNothingFreeBehindIt) {
    BridgeVolume volume;
    ntfs_attr* const bitmap = static_cast<ntb_vol*>(volume)->volume->lcnbmp_na;
    const s64 whole = std::exchange(bitmap->data_size, 64); // bytes
    std::array<ntb_extent, 100> extents;
    uint32_t count = 0;
    uint64_t next = 0;
    EXPECT_EQ(ntb_free_extents(volume, 0, 16 << 20, extents.data(), extents.size(), &count, &next),
              0);
    ASSERT_GT(count, 0u);
    EXPECT_LE(extents[count - 1].offset + extents[count - 1].length, 64u * 8 * 4096);
    bitmap->data_size = whole;
}

// The library wrote the times over the attribute's header, and then to memory that was not its own.
TEST(DamagedVolume, WhoseTimesAreSaidToBeInTheirHeaderKeepsTheDirectoryClosed) {
    BridgeVolume volume;
    volume.sample().leaveUnchecked();
    const uint64_t directory = volume.makeDirectory("folder");
    volume.make("file", directory);
    EXPECT_EQ(volume.unmount(), 0);
    uint64_t table = 0;
    std::memcpy(&table, &volume.memory().bytes[0x30], sizeof table);
    uint8_t* const record = &volume.memory().bytes[table * 4096 + directory * 1024];
    record[record[0x14] + 0x14] = 1; // the first attribute's value begins in its second byte

    ASSERT_EQ(volume.mount(), 0);
    uint64_t ino = 0;
    EXPECT_EQ(ntb_lookup(volume, directory, "file", &ino), EIO);
    EXPECT_EQ(ntb_rename(volume, directory, "file", NTB_ROOT_INO, "moved"), EIO);
    EXPECT_EQ(ntb_create(volume, directory, "new", NTB_TYPE_FILE, &ino), EIO);
}

} // namespace
} // namespace tavelin::test
