// The change journal of Windows says that it missed what was changed here.
#include "support/bridge_volume.hpp"
#include "support/usn_journal.hpp"

namespace tavelin::test {
namespace {

constexpr USNMax kFound{32u << 20, 8u << 20, 0x01d9'0000'0000'0000, 0x40};

TEST(USNJournal, IsStampedOnceAMountWithTheFirstChange) {
    BridgeVolume volume;
    const std::string records(5000, 'u');
    const uint64_t ino = makeUSNJournal(volume, kFound, records);
    ASSERT_EQ(volume.unmount(), 0);
    uint64_t before = kFound.id;
    for (int mount = 0; mount < 2; ++mount) {
        ASSERT_EQ(volume.mount(), 0);
        uint64_t file = 0;
        EXPECT_EQ(ntb_create(volume, NTB_ROOT_INO, "a:\n/b", NTB_TYPE_FILE, &file), EINVAL);
        EXPECT_EQ(usnMaxOf(volume, ino).id, before) << "by what changed nothing";
        volume.make("first" + std::to_string(mount));
        const USNMax max = usnMaxOf(volume, ino);
        EXPECT_GT(max.id, before);
        EXPECT_EQ(max.lowestUSN, records.size());
        EXPECT_EQ(max.maximumSize, kFound.maximumSize);
        EXPECT_EQ(max.allocationDelta, kFound.allocationDelta);
        volume.make("second" + std::to_string(mount));
        EXPECT_EQ(usnMaxOf(volume, ino).id, max.id) << "twice";
        before = max.id;
        ASSERT_EQ(volume.unmount(), 0);
    }
    ASSERT_EQ(volume.mount(true), 0);
    EXPECT_EQ(usnMaxOf(volume, ino).id, before);
}

} // namespace
} // namespace tavelin::test
