// Files whose bytes are not, or not only, in their unnamed stream, and links in every spelling.
#include "support/bridge_volume.hpp"
#include "support/reparse_items.hpp"

namespace tavelin::test {
namespace {

using Kind = ReparseItem::Kind;

constexpr const char* kDirectory = "items";

const std::map<Kind, uint32_t> kTypes{{Kind::compressed, NTB_TYPE_FILE},
                                      {Kind::refused, NTB_TYPE_FILE},
                                      {Kind::link, NTB_TYPE_SYMLINK},
                                      {Kind::fifo, NTB_TYPE_FIFO},
                                      {Kind::socket, NTB_TYPE_SOCKET},
                                      {Kind::charDevice, NTB_TYPE_CHARACTER_DEVICE},
                                      {Kind::blockDevice, NTB_TYPE_BLOCK_DEVICE}};

class ReparsePoints : public ::testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_DRIVER();
        volume.finish();
        makeReparseItems(DriverMount(volume.sample(), kReparseItemOptions), kDirectory);
        volume.reload();
        directory = volume.find(kDirectory);
    }

    int32_t readError(uint64_t ino) {
        char byte = 0;
        uint64_t done = 0;
        return ntb_read(volume, ino, 0, &byte, 1, &done);
    }

    BridgeVolume volume;
    uint64_t directory = 0;
};

TEST_F(ReparsePoints, AreListedAndReadRightlyOrRefused) {
    const auto listed = volume.list(directory);
    EXPECT_EQ(listed.size(), reparseItems().size());
    for (const ReparseItem& item : reparseItems()) {
        SCOPED_TRACE(item.name);
        const uint64_t ino = volume.find(item.name, directory);
        const ntb_attr attr = volume.attributes(ino);
        EXPECT_EQ(attr.type, kTypes.at(item.kind));
        EXPECT_EQ(listed.at(item.name), attr.type);
        EXPECT_EQ(attr.reparse_tag, item.tag);
        const bool isDevice = item.kind == Kind::charDevice || item.kind == Kind::blockDevice;
        EXPECT_EQ(attr.device, isDevice ? uint64_t{5} << 32 | 300 : 0);
        EXPECT_EQ(attr.data_state == NTB_DATA_SYSTEM_COMPRESSED, item.kind == Kind::compressed);
        EXPECT_EQ(attr.data_state == NTB_DATA_HERE, item.kind == Kind::link);
        if (item.kind == Kind::compressed) {
            EXPECT_EQ(attr.size, item.content.size());
            EXPECT_TRUE(volume.read(ino) == item.content);
            EXPECT_EQ(volume.read(ino, item.content.size() - 3, 10),
                      item.content.substr(item.content.size() - 3));
            EXPECT_EQ(volume.streams(ino), std::vector<std::string>());
            continue;
        }
        if (item.name != "junction") {
            EXPECT_EQ(readError(ino), EOPNOTSUPP);
            EXPECT_EQ(volume.write(ino, "x"), EOPNOTSUPP);
            EXPECT_EQ(ntb_truncate(volume, ino, 0), EOPNOTSUPP);
            EXPECT_EQ(ntb_decompress(volume, ino), EOPNOTSUPP);
            EXPECT_EQ(ntb_flush(volume, ino), 0);
        }
        if (item.kind == Kind::refused) {
            EXPECT_EQ(volume.stream(ino, "note").second, "kept");
            EXPECT_EQ(volume.setStream(ino, "more", "text"), 0);
            EXPECT_EQ(volume.streams(ino), (std::vector<std::string>{"more", "note"}));
        }
        if (item.kind == Kind::link) {
            EXPECT_EQ(attr.size, item.content.size());
            EXPECT_EQ(volume.readlink(ino, ntb_readlink_in_mount), item.content);
        }
    }
}

TEST_F(ReparsePoints, AreRenamedAndRemoved) {
    const ntb_time time = {1234567890, 0};
    for (const ReparseItem& item : reparseItems()) {
        SCOPED_TRACE(item.name);
        const uint64_t ino = volume.find(item.name, directory);
        const std::string name = "renamed " + item.name;
        EXPECT_EQ(ntb_set_times(volume, ino, nullptr, &time, nullptr, nullptr), 0);
        EXPECT_EQ(ntb_rename(volume, directory, item.name.c_str(), NTB_ROOT_INO, name.c_str()), 0);
        EXPECT_EQ(volume.attributes(ino).reparse_tag, item.tag);
        EXPECT_EQ(volume.unlink(name), 0);
    }
    EXPECT_EQ(volume.list(directory).size(), 0u);
    volume.finish();
}

TEST_F(ReparsePoints, SystemCompressedOnesAreWrittenOutBeforeAChange) {
    for (const ReparseItem& item : reparseItems()) {
        if (item.kind != Kind::compressed) {
            continue;
        }
        SCOPED_TRACE(item.name);
        const uint64_t ino = volume.find(item.name, directory);
        EXPECT_EQ(volume.write(ino, "x"), EOPNOTSUPP);
        EXPECT_EQ(volume.setStream(ino, "WofCompressedData", "x"), EPERM);
        EXPECT_EQ(ntb_removexattr(volume, ino, "WofCompressedData"), EOPNOTSUPP);
        EXPECT_EQ(ntb_decompress(volume, ino), 0);
        EXPECT_EQ(volume.attributes(ino).reparse_tag, 0u);
        EXPECT_EQ(volume.attributes(ino).data_state, uint32_t{NTB_DATA_HERE});
        EXPECT_EQ(volume.stream(ino, "WofCompressedData").first, ENODATA);
        EXPECT_EQ(volume.write(ino, "changed", 1000), 0);
    }
    const SampleVolume& sample = volume.finish();
    const DriverMount driver(sample);
    for (const ReparseItem& item : reparseItems()) {
        if (item.kind == Kind::compressed) {
            std::string expected = item.content;
            expected.replace(1000, 7, "changed");
            EXPECT_TRUE(readFile(driver.path(kDirectory + ("/" + item.name))) == expected)
                << item.name;
        }
    }
}

TEST_F(ReparsePoints, SystemCompressedOnesStaySoWithoutRoomToWriteThemOut) {
    const uint64_t filler = volume.make("filler");
    const ntb_statfs space = volume.space();
    EXPECT_EQ(volume.write(filler, std::string((space.freeClusters - 60) * space.clusterSize, 'f')),
              0);
    const ReparseItem& item = reparseItems().front();
    const uint64_t ino = volume.find(item.name, directory);
    EXPECT_EQ(ntb_decompress(volume, ino), ENOSPC);
    EXPECT_TRUE(volume.read(ino) == item.content);
    EXPECT_EQ(volume.attributes(ino).data_state, uint32_t{NTB_DATA_SYSTEM_COMPRESSED});
    volume.finish();
}

TEST(ReparseLinks, AreReadInEverySpelling) {
    REQUIRE_DRIVER();
    struct Spelling {
        std::string data;
        const char* inVolume;
        const char* inMount;
    };
    // Each is made in /links/deep.
    const Spelling spellings[] = {
        {junctionData("C:\\Real"), "/Real", "../../Real"},
        {junctionData("D:\\REAL\\sub\\"), "/Real/Sub", "../../Real/Sub"},
        {junctionData("C:\\"), "/", "../.."},
        {junctionData("C:\\gone\\Away"), "/gone/Away", "../../gone/Away"},
        {symlinkData("\\??\\C:\\real\\file", false), "/Real/file", "../../Real/file"},
        {symlinkData("C:\\Real", false), "/Real", "../../Real"},
        {symlinkData("\\Real", true), "/Real", "../../Real"},
        {symlinkData("/?"
                     "?/Real",
                     false),
         "/Real", "../../Real"},
        {symlinkData("\\??\\\\Real", false), "/Real", "../../Real"},
        {symlinkData("..\\..\\real", true), "../../Real", "../../Real"},
        {symlinkData("gone\\Away", true), "gone/Away", "gone/Away"},
        {symlinkData("itself", true), "itself", "itself"},
        {junctionData("Volume{1}\\x"), "\\??\\Volume{1}\\x", "\\??\\Volume{1}\\x"},
        {symlinkData("\\\\server\\share", false), "\\\\server\\share", "\\\\server\\share"},
        {wslLinkData("../Real"), "../Real", "../Real"},
    };
    BridgeVolume volume;
    volume.finish();
    {
        const DriverMount driver(volume.sample());
        std::filesystem::create_directories(driver.path("links/deep"));
        std::filesystem::create_directories(driver.path("Real/Sub"));
        int number = 0;
        for (const Spelling& spelling : spellings) {
            const std::string name = "links/deep/" + std::to_string(number++);
            if (spelling.data[0] == 0x03) { // junctions are directories
                std::filesystem::create_directory(driver.path(name));
            } else {
                driver.make(name);
            }
            driver.set(name, "system.ntfs_reparse_data", spelling.data);
        }
    }
    volume.reload();
    const uint64_t deep = volume.resolve("/links/deep");
    int number = 0;
    for (const Spelling& spelling : spellings) {
        const uint64_t ino = volume.find(std::to_string(number++), deep);
        SCOPED_TRACE(spelling.inVolume);
        EXPECT_EQ(volume.readlink(ino), spelling.inVolume);
        EXPECT_EQ(volume.readlink(ino, ntb_readlink_in_mount), spelling.inMount);
        EXPECT_EQ(volume.attributes(ino).type, uint32_t{NTB_TYPE_SYMLINK});
        EXPECT_EQ(volume.attributes(ino).size, strlen(spelling.inMount));
    }
}

TEST(ReparseLinks, AreMadeSoThatOthersFollowThem) {
    REQUIRE_DRIVER();
    BridgeVolume volume;
    EXPECT_EQ(volume.write(volume.make("file"), "content"), 0);
    const uint64_t directory = volume.makeDirectory("directory");
    EXPECT_EQ(volume.write(volume.make("inside", directory), "content"), 0);
    const std::pair<const char*, const char*> links[] = {{"to file", "../file"},
                                                         {"to directory", "../directory"},
                                                         {"dangling", "gone/Away"},
                                                         {"absolute", "/somewhere"},
                                                         {"odd", "a:b"}};
    for (const auto& [name, target] : links) {
        SCOPED_TRACE(name);
        uint64_t ino = 0;
        ASSERT_EQ(ntb_symlink_windows(volume, directory, name, target, nullptr, &ino), 0);
        EXPECT_EQ(volume.readlink(ino), target);
        const bool isInterix = *target == '/' || std::strchr(target, ':') != nullptr;
        EXPECT_EQ(volume.attributes(ino).reparse_tag, isInterix ? 0 : NTB_TAG_SYMLINK);
        EXPECT_EQ(ntb_symlink_windows(volume, directory, name, target, nullptr, &ino), EEXIST);
    }
    {
        const DriverMount driver(volume.finish());
        EXPECT_EQ(readFile(driver.path("directory/to file")), "content");
        EXPECT_EQ(readFile(driver.path("directory/to directory/inside")), "content");
        EXPECT_EQ(std::filesystem::read_symlink(driver.path("directory/absolute")), "/somewhere");
    }
    volume.reload();
    for (const auto& [name, target] : links) {
        EXPECT_EQ(ntb_unlink(volume, volume.find("directory"), name), 0) << name;
    }
    volume.finish();
}

} // namespace
} // namespace tavelin::test
