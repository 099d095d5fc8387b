// Files whose bytes are elsewhere, through the command line: right bytes, or an error with a name.
#include "check/image_editor.hpp"
#include "core/reparse_tags.hpp"
#include "hosts/cli/tavelin_program.hpp"
#include "support/little_endian.hpp"
#include "support/reparse_items.hpp"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace tavelin::test {
namespace {

using Kind = ReparseItem::Kind;
namespace fs = std::filesystem;

class ReparseItems : public CommandTest {
  protected:
    void SetUp() override {
        REQUIRE_DRIVER();
        makeReparseItems(DriverMount(volume, kReparseItemOptions), "items");
    }
};

TEST_F(ReparseItems, AreReadAndCopiedOrRefusedByName) {
    const ProcessResult got = tavelinRun({"get", "-q", image, "/items", host.path()});
    EXPECT_EQ(got.status, 1);
    for (const ReparseItem& item : reparseItems()) {
        SCOPED_TRACE(item.name);
        const std::string path = "/items/" + item.name;
        const fs::path copy = host / "items" / item.name;
        if (item.kind == Kind::link) {
            EXPECT_EQ(fs::read_symlink(copy), item.content);
        } else if (item.kind == Kind::compressed) {
            EXPECT_TRUE(tavelinDone({"cat", image, path}) == item.content);
            EXPECT_TRUE(readFile(copy) == item.content);
        } else {
            expectRefusal(tavelinRun({"cat", image, path}), 1,
                          std::string(reparseTag(item.tag).meaning));
            EXPECT_FALSE(fs::exists(copy));
            EXPECT_NE(got.err.find(path + ": its bytes are not in it"), std::string::npos)
                << got.err;
        }
    }
}

TEST_F(ReparseItems, AreToldInListings) {
    const auto listed = tavelinItems({"ls", "-a", image, "/items"});
    ASSERT_EQ(listed.size(), reparseItems().size());
    const std::string lines = tavelinDone({"ls", "-l", image, "/items"});
    for (const ReparseItem& item : reparseItems()) {
        SCOPED_TRACE(item.name);
        const std::string path = "/items/" + item.name;
        const auto entry =
            std::ranges::find_if(listed, [&](const auto& each) { return each.at("path") == path; });
        ASSERT_NE(entry, listed.end());
        EXPECT_EQ(*entry, tavelinItems({"stat", image, path}).at(0));
        EXPECT_EQ(entry->at("reparseKind"), reparseTag(item.tag).name);
        EXPECT_EQ(entry->at("data") == "elsewhere",
                  item.kind != Kind::compressed && item.kind != Kind::link);
        EXPECT_NE(lines.find(item.kind == Kind::refused || item.kind == Kind::compressed
                                 ? fmt::format("{}  [{}]", item.name, reparseTag(item.tag).name)
                                 : item.name),
                  std::string::npos)
            << lines;
    }
    // Links say where they lead on the volume.
    EXPECT_EQ(tavelinDone({"readlink", image, "/items/junction"}), "/real\n");
    EXPECT_EQ(tavelinDone({"readlink", image, "/items/symlink"}), "../real/file\n");
    EXPECT_NE(lines.find("junction -> /real\n"), std::string::npos);
}

using EncryptedFile = CommandTest;

TEST_F(EncryptedFile, IsRefusedByName) {
    volume.leaveUnchecked();
    const std::string letter = host / "letter";
    writeFile(letter, std::string(9000, 'x'));
    tavelinDone({"put", "-q", image, letter, "/"});
    editImage(image, [](ImageEditor& editor) { markEncrypted(editor, "/letter"); });

    for (const std::vector<std::string>& command :
         {std::vector<std::string>{"cat", image, "/letter"},
          {"hash", image, "/letter"},
          {"diff", image, "/", host.path()},
          {"diff", image, "/", "--with", image},
          {"get", image, "/letter", letter + " here"}}) {
        expectRefusal(tavelinRun(command), 1, "encrypted by Windows (EFS)");
    }
    EXPECT_EQ(tavelinItems({"stat", image, "/letter"}).at(0).at("data"), "encrypted");
    EXPECT_NE(tavelinDone({"ls", "-l", image, "/"}).find("letter  [encrypted"), std::string::npos);
    tavelinDone({"mv", image, "/letter", "/moved"});
    // A new file takes the name. Nothing is written into the encrypted one.
    writeFile(letter, "new");
    tavelinDone({"put", "-q", "--replace", image, letter, "/moved"});
    EXPECT_EQ(tavelinDone({"cat", image, "/moved"}), "new");
}

// Only Windows and the driver make them.
TEST_F(ReparseItems, ShortNamesAreShownOnRequestAndHiddenFilesToo) {
    {
        const DriverMount driver(volume);
        driver.make("a long name.txt", "content");
        driver.set("a long name.txt", "system.ntfs_dos_name", "ALONGN~1.TXT");
        driver.make("other");
        driver.make("hidden");
        driver.set("hidden", "system.ntfs_attrib", littleEndian(0x22, 4));
    }
    EXPECT_EQ(tavelinDone({"ls", "--short-names", image}),
              "ALONGN~1.TXT  a long name.txt\n              items\n              other\n");
    EXPECT_EQ(tavelinDone({"ls", "--short-names", image, "a long name.txt"}),
              "ALONGN~1.TXT  a long name.txt\n");
    EXPECT_EQ(tavelinDone({"cat", image, "ALONGN~1.TXT"}), "content");
    const auto item = tavelinItems({"stat", image, "a long name.txt", "other", "/items/.."});
    EXPECT_EQ(item.at(0).at("shortName"), "ALONGN~1.TXT");
    EXPECT_FALSE(item.at(1).contains("shortName"));
    EXPECT_EQ(tavelinItems({"ls", "--short-names", image}).at(0), item.at(0));
    EXPECT_EQ(tavelinItems({"ls", "-a", image}).at(1).at("name"), "hidden");
}

} // namespace
} // namespace tavelin::test
