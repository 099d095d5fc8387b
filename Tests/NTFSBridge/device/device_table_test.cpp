#include "NTFSBridge/device/device_table.hpp"
#include "lab/disk_io.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>

namespace tavelin::test {
namespace {

using Kind = DiskCall;

constexpr s64 kSize = 64 * 1024;

// The device as the library holds it.
struct LibraryDevice {
    explicit LibraryDevice(bool isReadOnly = false, uint32_t blockSize = 512)
        : memory(std::vector<uint8_t>(kSize), blockSize),
          context(memory.io(), isReadOnly, stats),
          device(ntfs_device_alloc("test", 0, &ntb::ntb_dev_ops, &context)) {
        context.cache.enable();
    }
    ~LibraryDevice() {
        NDevClearOpen(device);
        ntfs_device_free(device);
    }
    const ntfs_device_operations& ops() const { return *device->d_ops; }
    uint64_t syncs() {
        uint64_t count = 0;
        for (const DiskRequest& call : memory.takeLog()) {
            count += call.call == Kind::flush ? 1 : 0;
        }
        return count;
    }

    DiskIo memory;
    ntb_stats stats = {};
    ntb::ntb_devctx context;
    ntfs_device* device;
};

TEST(DeviceTable, OpensReadOnlyWhenEitherSideAsks) {
    const struct {
        bool isReadOnly;
        int flags;
        bool opensReadOnly;
    } cases[] = {{false, O_RDWR, false}, {false, O_RDONLY, true}, {true, O_RDWR, true}};
    for (const auto& c : cases) {
        LibraryDevice d(c.isReadOnly);
        EXPECT_EQ(d.ops().close(d.device), -1);
        EXPECT_EQ(errno, EBADF);
        ASSERT_EQ(d.ops().open(d.device, c.flags), 0);
        EXPECT_TRUE(NDevOpen(d.device) && NDevBlock(d.device));
        EXPECT_EQ(NDevReadOnly(d.device) != 0, c.opensReadOnly);
        EXPECT_EQ(d.ops().open(d.device, c.flags), -1);
        EXPECT_EQ(errno, EBUSY);
        errno = 0;
        EXPECT_EQ(d.ops().pwrite(d.device, "x", 1, 0), c.opensReadOnly ? -1 : 1);
        EXPECT_EQ(errno, c.opensReadOnly ? EROFS : 0);
        EXPECT_EQ(d.ops().close(d.device), 0);
        EXPECT_FALSE(NDevOpen(d.device));
        EXPECT_EQ(d.syncs(), c.opensReadOnly ? 0u : 1u);
    }
}

TEST(DeviceTable, PositionMovesWithReadsAndWrites) {
    LibraryDevice d;
    ASSERT_EQ(d.ops().open(d.device, O_RDWR), 0);
    char text[8] = {};
    EXPECT_EQ(d.ops().seek(d.device, -4, SEEK_END), kSize - 4);
    EXPECT_EQ(d.ops().write(d.device, "abcd", 4), 4);
    EXPECT_EQ(d.ops().read(d.device, text, 4), 0) << "at the end";
    EXPECT_EQ(d.ops().write(d.device, "x", 1), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(d.ops().seek(d.device, -3, SEEK_CUR), kSize - 3);
    EXPECT_EQ(d.ops().read(d.device, text, 8), 3) << "cut at the end";
    EXPECT_STREQ(text, "bcd");
    EXPECT_EQ(d.ops().seek(d.device, 7, SEEK_SET), 7);
    EXPECT_EQ(d.ops().pread(d.device, text, 0, 0), 0);
    EXPECT_EQ(d.ops().pread(d.device, text, 1, -1), 0);
    EXPECT_EQ(d.ops().pwrite(d.device, text, 0, 0), 0);
    EXPECT_EQ(d.ops().pwrite(d.device, text, 1, -1), -1);
    EXPECT_EQ(d.ops().seek(d.device, 0, SEEK_CUR), 7);
    EXPECT_EQ(d.ops().seek(d.device, 0, 99), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(DeviceTable, SyncsTheHostOnceAfterAChangeAndRetriesFailures) {
    LibraryDevice d;
    ASSERT_EQ(d.ops().open(d.device, O_RDWR), 0);
    EXPECT_EQ(d.ops().sync(d.device), 0);
    EXPECT_EQ(d.syncs(), 0u) << "nothing changed";
    ASSERT_EQ(d.ops().pwrite(d.device, "x", 1, 0), 1);
    EXPECT_EQ(d.stats.dirtyPages, 1u);
    for (const uint64_t failing : {1, 2}) { // the flush, then the host's own sync
        d.memory.fail(failing, failing, ENXIO);
        errno = 0;
        EXPECT_EQ(d.ops().sync(d.device), -1);
        EXPECT_EQ(errno, ENXIO);
        EXPECT_EQ(d.stats.dirtyPages, failing == 1 ? 1u : 0u);
        EXPECT_TRUE(NDevDirty(d.device));
    }
    d.memory.takeLog();
    EXPECT_EQ(d.ops().sync(d.device), 0);
    EXPECT_EQ(d.ops().sync(d.device), 0);
    EXPECT_EQ(d.syncs(), 1u);
    EXPECT_EQ(d.memory.bytes[0], 'x');

    ASSERT_EQ(d.ops().pwrite(d.device, "y", 1, 0), 1);
    d.memory.failFrom(1, EIO);
    EXPECT_EQ(d.ops().close(d.device), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(d.stats.dirtyPages, 1u);
    EXPECT_FALSE(NDevOpen(d.device)) << "closed all the same";
}

TEST(DeviceTable, DescribesTheDevice) {
    for (const uint32_t blockSize : {0u, 512u, 4096u}) {
        LibraryDevice d(false, blockSize);
        struct stat record = {};
        uint32_t size = 0;
        uint64_t count = 0;
        EXPECT_EQ(d.ops().stat(d.device, &record), 0);
        EXPECT_TRUE(S_ISBLK(record.st_mode));
        EXPECT_EQ(record.st_size, kSize);
        EXPECT_EQ(record.st_blksize, std::max(blockSize, 1u));
        EXPECT_EQ(d.ops().ioctl(d.device, 0x40046418, &size), 0);
        EXPECT_EQ(d.ops().ioctl(d.device, 0x40086419, &count), 0);
        EXPECT_EQ(size, std::max(blockSize, 512u));
        EXPECT_EQ(count, kSize / size);
        EXPECT_EQ(d.ops().ioctl(d.device, 1, &size), -1);
        EXPECT_EQ(errno, EOPNOTSUPP);
    }
}

} // namespace
} // namespace tavelin::test
