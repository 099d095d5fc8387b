// Files whose bytes are elsewhere, through the command line: right bytes, or an error with a name.
#include "check/image_editor.hpp"
#include "core/reparse_tags.hpp"
#include "hosts/cli/tavelin_program.hpp"
#include "support/reparse_items.hpp"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace tavelin::test {
namespace {

using Kind = ReparseItem::Kind;
namespace fs = std::filesystem;

class ReparseItems : public ::testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_DRIVER();
        makeReparseItems(DriverMount(sample_, kReparseItemOptions), "items");
    }

    std::string image() const { return sample_.image().string(); }

    SampleVolume sample_;
};

TEST_F(ReparseItems, AreReadOrRefusedByName) {
    for (const ReparseItem& item : reparseItems()) {
        SCOPED_TRACE(item.name);
        if (item.kind == Kind::link) {
            continue;
        }
        const ProcessResult cat = tavelinRun({"cat", image(), "/items/" + item.name});
        if (item.kind == Kind::compressed) {
            EXPECT_TRUE(cat.ok());
            EXPECT_TRUE(cat.out == item.content);
        } else {
            expectRefusal(cat, 1, std::string(reparseTag(item.tag).meaning));
        }
    }
}

TEST_F(ReparseItems, AreToldInListings) {
    const auto listed = tavelinItems({"ls", "-a", image(), "/items"});
    ASSERT_EQ(listed.size(), reparseItems().size());
    const std::string lines = tavelinDone({"ls", "-l", image(), "/items"});
    for (const ReparseItem& item : reparseItems()) {
        SCOPED_TRACE(item.name);
        const std::string path = "/items/" + item.name;
        const auto entry =
            std::ranges::find_if(listed, [&](const auto& each) { return each.at("path") == path; });
        ASSERT_NE(entry, listed.end());
        EXPECT_EQ(*entry, tavelinItems({"stat", image(), path}).at(0));
        EXPECT_EQ(entry->at("reparseKind"), reparseTag(item.tag).name);
        EXPECT_EQ(entry->at("data") == "elsewhere",
                  item.kind != Kind::compressed && item.kind != Kind::link);
        EXPECT_NE(lines.find(item.kind == Kind::refused || item.kind == Kind::compressed
                                 ? fmt::format("{}  [{}]", item.name, reparseTag(item.tag).name)
                                 : item.name),
                  std::string::npos)
            << lines;
    }
}

TEST_F(ReparseItems, AreToldWithTheVolumesPathWhenTheyLeadThere) {
    EXPECT_EQ(tavelinDone({"readlink", image(), "/items/junction"}), "/real\n");
    EXPECT_EQ(tavelinDone({"readlink", image(), "/items/symlink"}), "../real/file\n");
    EXPECT_NE(tavelinDone({"ls", "-l", image(), "/items"}).find("junction -> /real\n"),
              std::string::npos);
}

TEST_F(ReparseItems, AreLeftOutOfACopyThatHasTheRest) {
    const TempDirectory target;
    const ProcessResult got = tavelinRun({"get", "-q", image(), "/items", target.path().string()});
    EXPECT_EQ(got.status, 1);
    for (const ReparseItem& item : reparseItems()) {
        SCOPED_TRACE(item.name);
        const fs::path copy = target.path() / "items" / item.name;
        if (item.kind == Kind::compressed) {
            EXPECT_TRUE(readFile(copy) == item.content);
        } else if (item.kind == Kind::link) {
            EXPECT_EQ(fs::read_symlink(copy), item.content);
        } else {
            EXPECT_FALSE(fs::exists(copy));
            EXPECT_NE(got.err.find("/items/" + item.name + ": its bytes are not in it"),
                      std::string::npos)
                << got.err;
        }
    }
}

TEST(EncryptedFile, IsRefusedByName) {
    SampleVolume sample;
    sample.leaveUnchecked();
    const std::string image = sample.image().string();
    const TempDirectory host;
    const std::string letter = (host / "letter").string();
    writeFile(letter, std::string(9000, 'x'));
    tavelinDone({"put", "-q", image, letter, "/"});
    const std::string raw = readFile(sample.image());
    std::vector<uint8_t> bytes(raw.begin(), raw.end());
    ImageEditor editor(bytes);
    markEncrypted(editor, "/letter");
    writeFile(sample.image(), std::string(bytes.begin(), bytes.end()));

    const std::vector<std::vector<std::string>> readers = {
        {"cat", image, "/letter"},
        {"hash", image, "/letter"},
        {"diff", image, "/", host.path().string()},
        {"diff", image, "/", "--with", image},
        {"get", image, "/letter", letter + " here"}};
    for (const auto& command : readers) {
        expectRefusal(tavelinRun(command), 1, "encrypted by Windows (EFS)");
    }
    const auto told = nlohmann::json::parse(tavelinDone({"stat", "--json", image, "/letter"}));
    EXPECT_EQ(told.at("items").at(0).at("data"), "encrypted");
    EXPECT_NE(tavelinDone({"ls", "-l", image, "/"}).find("letter  [encrypted"), std::string::npos);
    tavelinDone({"mv", image, "/letter", "/moved"});
    // A new file takes the name. Nothing is written into the encrypted one.
    writeFile(letter, "new");
    tavelinDone({"put", "-q", "--replace", image, letter, "/moved"});
    EXPECT_EQ(tavelinDone({"cat", image, "/moved"}), "new");
}

// Only Windows and the driver make them.
TEST_F(ReparseItems, ShortNamesAreShownOnRequest) {
    {
        const DriverMount driver(sample_);
        driver.make("a long name.txt", "content");
        driver.set("a long name.txt", "system.ntfs_dos_name", "ALONGN~1.TXT");
        driver.make("other");
    }
    EXPECT_EQ(tavelinDone({"ls", "--short-names", image()}),
              "ALONGN~1.TXT  a long name.txt\n              items\n              other\n");
    EXPECT_EQ(tavelinDone({"ls", "--short-names", image(), "a long name.txt"}),
              "ALONGN~1.TXT  a long name.txt\n");
    EXPECT_EQ(tavelinDone({"cat", image(), "ALONGN~1.TXT"}), "content");
    const auto item = tavelinItems({"stat", image(), "a long name.txt", "other", "/items/.."});
    EXPECT_EQ(item.at(0).at("shortName"), "ALONGN~1.TXT");
    EXPECT_FALSE(item.at(1).contains("shortName"));
    EXPECT_EQ(tavelinItems({"ls", "--short-names", image()}).at(0), item.at(0));
}

} // namespace
} // namespace tavelin::test
