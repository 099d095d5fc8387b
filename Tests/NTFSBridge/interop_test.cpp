// Volumes shared with the FUSE driver ntfs-3g, in both directions.
#include "support/bridge_volume.hpp"
#include "support/driver_mount.hpp"
#include "support/reparse_items.hpp"

#include <fstream>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace tavelin::test {
namespace {

namespace fs = std::filesystem;

const std::string kCompressible(300000, 'c');
constexpr int kMany = 3000;

void makeWithDriver(const DriverMount& driver) {
    fs::create_directory(driver.path("compressed"));
    driver.set("compressed", "system.ntfs_attrib", littleEndian(0x810, 4));
    driver.make("compressed/file", kCompressible);
    driver.make("sparse");
    fs::resize_file(driver.path("sparse"), 1u << 30);
    std::ofstream(driver.path("sparse"), std::ios::in | std::ios::binary)
        .seekp(500 << 20)
        .write(std::string(4096, 's').data(), 4096);
    driver.make("streams", "unnamed");
    driver.set("streams", "user.first", "1");
    driver.set("streams", "user.second", patternText(30000));
    driver.make("Long name with an alias.text", "aliased");
    driver.set("Long name with an alias.text", "system.ntfs_dos_name", "LONGNA~1.TXT");
    driver.make(std::string(255, 'n'));
    fs::create_hard_link(driver.path("streams"), driver.path("second name"));
    fs::create_symlink("streams", driver.path("interix"));
    fs::create_directory(driver.path("junction"));
    fs::create_directory(driver.path("many"));
    for (int i = 0; i < kMany; ++i) {
        driver.make("many/entry number " + std::to_string(i));
    }
    driver.makeSpecial("fifo", S_IFIFO, 0);
    driver.makeSpecial("socket", S_IFSOCK, 0);
    driver.makeSpecial("character", S_IFCHR, makedev(5, 7));
    driver.makeSpecial("block", S_IFBLK, makedev(5, 7));
    driver.set("junction", "system.ntfs_reparse_data", junctionData("C:\\compressed"));
}

class Interop : public ::testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_DRIVER();
        volume.finish();
        makeWithDriver(DriverMount(volume.sample()));
        volume.reload();
    }

    BridgeVolume volume;
};

TEST_F(Interop, WhatTheDriverWroteIsRead) {
    EXPECT_EQ(volume.list(), (std::map<std::string, uint32_t>{
                                 {"Long name with an alias.text", 1},
                                 {"block", NTB_TYPE_BLOCK_DEVICE},
                                 {"character", NTB_TYPE_CHARACTER_DEVICE},
                                 {"compressed", 2},
                                 {"fifo", NTB_TYPE_FIFO},
                                 {"interix", 3},
                                 {"junction", 3},
                                 {"many", 2},
                                 {std::string(255, 'n'), 1},
                                 {"second name", 1},
                                 {"socket", NTB_TYPE_SOCKET},
                                 {"sparse", 1},
                                 {"streams", 1},
                             }));
    const uint64_t compressed = volume.resolve("/compressed/file");
    ntb_attr attr = volume.attributes(compressed);
    EXPECT_NE(attr.flags & NTB_FLAG_COMPRESSED, 0u);
    EXPECT_LT(attr.alloc_size, attr.size);
    EXPECT_TRUE(volume.read(compressed) == kCompressible);
    attr = volume.attributes(volume.find("sparse"));
    EXPECT_EQ(attr.size, 1u << 30);
    EXPECT_EQ(attr.alloc_size, 4096u);
    EXPECT_EQ(volume.read(volume.find("sparse"), (500 << 20) - 1, 4098),
              std::string(1, '\0') + std::string(4096, 's') + std::string(1, '\0'));
    EXPECT_EQ(volume.streams(volume.find("streams")),
              (std::vector<std::string>{"first", "second"}));
    EXPECT_EQ(volume.stream(volume.find("second name"), "second").second, patternText(30000));
    uint64_t size = 0;
    EXPECT_EQ(ntb_xattr_size(volume, volume.find("streams"), "second", &size), 0);
    EXPECT_EQ(size, 30000u);
    const uint64_t aliased = volume.find("Long name with an alias.text");
    EXPECT_EQ(volume.find("LONGNA~1.TXT"), aliased);
    EXPECT_EQ(volume.shortName("Long name with an alias.text"), "LONGNA~1.TXT");
    EXPECT_EQ(volume.shortName("LONGNA~1.TXT"), "") << "of the alias itself";
    EXPECT_EQ(volume.shortName("streams"), "");
    EXPECT_EQ(volume.attributes(volume.find("streams")).link_count, 2u);
    EXPECT_EQ(volume.attributes(aliased).link_count, 2u);
    EXPECT_EQ(volume.readlink(volume.find("interix")), "streams");
    const uint64_t many = volume.find("many");
    EXPECT_EQ(volume.list(many).size(), size_t{kMany});
    for (int i = 0; i < kMany; i += 97) {
        EXPECT_NE(volume.find("entry number " + std::to_string(i), many), 0u);
    }
    for (const auto& [name, type] : volume.list()) {
        attr = volume.attributes(volume.find(name));
        EXPECT_EQ(attr.type, type) << name;
        EXPECT_EQ(attr.device, name == "character" || name == "block" ? uint64_t{5} << 32 | 7 : 0)
            << name;
    }
}

TEST_F(Interop, WhatTheBridgeWroteAndChangedTheDriverReads) {
    const std::string patch = patternText(50000);
    std::string expected = kCompressible;
    expected.replace(100000, patch.size(), patch);
    EXPECT_EQ(volume.write(volume.resolve("/compressed/file"), patch, 100000), 0);
    EXPECT_EQ(volume.write(volume.find("sparse"), "hole", 100 << 20), 0);
    EXPECT_EQ(volume.rename("Long name with an alias.text", "Long Name with an alias.text"), 0);
    EXPECT_EQ(volume.rename("second name", "streams"), EEXIST);
    EXPECT_EQ(volume.list().count("second name") + volume.list().count("streams"), 2u);
    EXPECT_EQ(volume.unlink("second name"), 0);
    EXPECT_EQ(volume.rename("interix", "moved link"), 0);
    EXPECT_EQ(volume.unlink("junction"), 0);
    const std::string made = "\u20ac/" + std::string(255, 'f');
    const uint64_t file = volume.make(made.substr(4), volume.makeDirectory("\u20ac"));
    const ntb_time time = {1234567890, 123456700};
    uint64_t link = 0;
    EXPECT_EQ(volume.write(file, patternText(600000)), 0);
    EXPECT_EQ(volume.setStream(file, "stream", "value"), 0);
    EXPECT_EQ(ntb_set_times(volume, file, nullptr, &time, nullptr, nullptr), 0);
    EXPECT_EQ(ntb_symlink(volume, NTB_ROOT_INO, "link", "\u20ac", nullptr, &link), 0);

    const DriverMount driver(volume.finish());
    struct stat status = {};
    ASSERT_EQ(stat(driver.path(made).c_str(), &status), 0);
    EXPECT_EQ(status.st_mtim.tv_sec, time.seconds);
    EXPECT_EQ(status.st_mtim.tv_nsec, time.nanoseconds);
    EXPECT_TRUE(readFile(driver.path(made)) == patternText(600000));
    EXPECT_EQ(driver.get(made, "user.stream"), "value");
    EXPECT_EQ(fs::read_symlink(driver.path("link")), "\u20ac");
    EXPECT_TRUE(readFile(driver.path("compressed/file")) == expected);
    EXPECT_EQ(readFile(driver.path("Long Name with an alias.text")), "aliased");
    EXPECT_EQ(fs::read_symlink(driver.path("moved link")), "streams");
    EXPECT_EQ(fs::hard_link_count(driver.path("streams")), 1u);
    EXPECT_FALSE(fs::exists(fs::symlink_status(driver.path("junction"))));
    char hole[5] = {};
    std::ifstream(driver.path("sparse"), std::ios::binary).seekg(100 << 20).read(hole, 4);
    EXPECT_STREQ(hole, "hole");
}

} // namespace
} // namespace tavelin::test
