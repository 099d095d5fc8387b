// Files whose bytes are elsewhere, links and special files, through a mount.
#include "hosts/fuse/served_volume.hpp"
#include "support/reparse_items.hpp"

#include <fcntl.h>
#include <map>
#include <sys/sysmacros.h>

namespace tavelin::test {
namespace {

using Kind = ReparseItem::Kind;
namespace fs = std::filesystem;

class MountedReparseItems : public MountTest {
  protected:
    void SetUp() override {
        if (const std::string reason = whyNoMounts(); !reason.empty()) {
            GTEST_SKIP() << reason;
        }
        volume_ = std::make_unique<SampleVolume>();
        {
            const DriverMount driver(*volume_, kReparseItemOptions);
            makeReparseItems(driver, "items");
            fs::create_directory(driver.path("real"));
            driver.make("real/file", "followed");
        }
        mount();
    }

    std::string pathOf(const ReparseItem& item) const { return path("items/" + item.name); }
};

// What becomes of them when they are changed, renamed or removed is the volume's alone.
TEST_F(MountedReparseItems, AreWhatTheyAreAndReadOrRefused) {
    const std::map<Kind, mode_t> types{{Kind::compressed, S_IFREG}, {Kind::refused, S_IFREG},
                                       {Kind::link, S_IFLNK},       {Kind::fifo, S_IFIFO},
                                       {Kind::socket, S_IFSOCK},    {Kind::charDevice, S_IFCHR},
                                       {Kind::blockDevice, S_IFBLK}};
    for (const ReparseItem& item : reparseItems()) {
        SCOPED_TRACE(item.name);
        const struct stat status = statusOf("items/" + item.name);
        EXPECT_EQ(status.st_mode & S_IFMT, types.at(item.kind));
        if (item.kind == Kind::charDevice || item.kind == Kind::blockDevice) {
            EXPECT_EQ(status.st_rdev, makedev(5, 300));
        } else if (item.kind == Kind::compressed) {
            EXPECT_TRUE(readFile(pathOf(item)) == item.content);
        } else if (item.kind == Kind::refused) {
            const Descriptor file(pathOf(item), O_RDWR);
            char byte = 0;
            EXPECT_EQ(errorOf(static_cast<int>(read(file, &byte, 1))), EOPNOTSUPP);
            EXPECT_EQ(errorOf(static_cast<int>(write(file, "x", 1))), EOPNOTSUPP);
            EXPECT_EQ(errorOf(ftruncate(file, 0)), EOPNOTSUPP);
            EXPECT_EQ(fsync(file), 0);
            char note[8] = {};
            EXPECT_EQ(getxattr(pathOf(item).c_str(), "user.note", note, sizeof note), 4);
        } else if (item.kind == Kind::link) {
            EXPECT_EQ(fs::read_symlink(pathOf(item)), item.content);
        }
    }
    EXPECT_EQ(readFile(path("items/symlink")), "followed");
    EXPECT_EQ(readFile(path("items/junction/file")), "followed");
}

} // namespace
} // namespace tavelin::test
