// The change journal of Windows says that it missed what was changed here.
#include "NTFSBridge/volume.hpp"
#include "support/bridge_volume.hpp"

#include <cstdlib>
#include <cstring>

namespace tavelin::test {
namespace {

struct MaxStream {
    uint64_t maximumSize, allocationDelta, id, lowestUSN;
};
constexpr MaxStream kFound{32u << 20, 8u << 20, 0x01d9'0000'0000'0000, 0x40};

// Makes $Extend\$UsnJrnl as Windows does, which no way in offers. Answers its record.
uint64_t makeUSNJournal(ntb_vol* volume, const MaxStream& max, const std::string& records) {
    ntfs_volume* const library = volume->volume;
    ntfschar* name = nullptr;
    const int units = ntfs_mbstoucs("$UsnJrnl", &name);
    const ntb::c_string owned(reinterpret_cast<char*>(name));
    ntfs_inode* const extend = ntfs_inode_open(library, ntb::extend_ino);
    ntfs_inode* const journal =
        ntfs_create(extend, cpu_to_le32(0), name, static_cast<u8>(units), S_IFREG);
    EXPECT_NE(journal, nullptr);
    const uint64_t ino = journal->mft_no;
    EXPECT_EQ(ntfs_inode_close(journal), 0);
    EXPECT_EQ(ntfs_inode_close(extend), 0);
    volume->is_usn_stamped = true;
    EXPECT_EQ(ntb_setxattr(volume, ino, "$Max", &max, sizeof max, NTB_XATTR_ANY), 0);
    EXPECT_EQ(ntb_setxattr(volume, ino, "$J", records.data(), records.size(), NTB_XATTR_ANY), 0);
    return ino;
}

MaxStream maxOf(ntb_vol* volume, uint64_t ino) {
    void* bytes = nullptr;
    uint64_t size = 0;
    MaxStream max{};
    EXPECT_EQ(ntb_getxattr(volume, ino, "$Max", &bytes, &size), 0);
    EXPECT_EQ(size, sizeof max);
    std::memcpy(&max, bytes, sizeof max);
    std::free(bytes);
    return max;
}

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
        EXPECT_EQ(maxOf(volume, ino).id, before) << "by what changed nothing";
        volume.make("first" + std::to_string(mount));
        const MaxStream max = maxOf(volume, ino);
        EXPECT_GT(max.id, before);
        EXPECT_EQ(max.lowestUSN, records.size());
        EXPECT_EQ(max.maximumSize, kFound.maximumSize);
        EXPECT_EQ(max.allocationDelta, kFound.allocationDelta);
        volume.make("second" + std::to_string(mount));
        EXPECT_EQ(maxOf(volume, ino).id, max.id) << "twice";
        before = max.id;
        ASSERT_EQ(volume.unmount(), 0);
    }
    ASSERT_EQ(volume.mount(true), 0);
    EXPECT_EQ(maxOf(volume, ino).id, before);
}

} // namespace
} // namespace tavelin::test
