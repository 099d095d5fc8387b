#include "support/usn_journal.hpp"

#include "NTFSBridge/volume.hpp"
#include "support/bridge_volume.hpp"

#include <cstdlib>
#include <cstring>

namespace tavelin::test {

uint64_t makeUSNJournal(ntb_vol* volume, const USNMax& max, const std::string& records) {
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

USNMax usnMaxOf(ntb_vol* volume, uint64_t journal) {
    void* bytes = nullptr;
    uint64_t size = 0;
    USNMax max{};
    EXPECT_EQ(ntb_getxattr(volume, journal, "$Max", &bytes, &size), 0);
    EXPECT_EQ(size, sizeof max);
    std::memcpy(&max, bytes, std::min<uint64_t>(size, sizeof max));
    std::free(bytes);
    return max;
}

} // namespace tavelin::test
