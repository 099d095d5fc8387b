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

// No driver here makes such a file, so a plain one is changed to look as Windows leaves it.
TEST(EncryptedFile, IsRefusedByName) {
    constexpr uint32_t kStandardInformation = 0x10;
    constexpr uint32_t kData = 0x80;
    constexpr uint8_t kEncryptedHigh = 0x40; // the high byte of 0x4000 in both kinds of flags
    SampleVolume sample;
    sample.leaveUnchecked();
    const std::string image = sample.image().string();
    const TempDirectory source;
    writeFile(source / "letter", std::string(9000, 'x'));
    tavelinDone({"put", "-q", image, (source / "letter").string(), "/"});
    const std::string raw = readFile(sample.image());
    std::vector<uint8_t> bytes(raw.begin(), raw.end());
    ImageEditor editor(bytes);
    const uint64_t record = editor.record("/letter");
    editor.editValue(record, kStandardInformation, "",
                     [](ImageEditor::Bytes value) { value[0x21] |= kEncryptedHigh; });
    editor.editAttribute(record, kData, "",
                         [](ImageEditor::Bytes attribute) { attribute[0x0d] |= kEncryptedHigh; });
    writeFile(sample.image(), std::string(bytes.begin(), bytes.end()));

    expectRefusal(tavelinRun({"cat", image, "/letter"}), 1, "encrypted by Windows (EFS)");
    const auto told = nlohmann::json::parse(tavelinDone({"stat", "--json", image, "/letter"}));
    EXPECT_EQ(told.at("items").at(0).at("data"), "encrypted");
    EXPECT_NE(tavelinDone({"ls", "-l", image, "/"}).find("letter  [encrypted"), std::string::npos);
    tavelinDone({"rm", image, "/letter"});
}

} // namespace
} // namespace tavelin::test
