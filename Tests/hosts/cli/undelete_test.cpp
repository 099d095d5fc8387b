// undelete: what comes back, and what is said of what cannot.
#include "tavelin_program.hpp"

#include "NTFSBridge/ondisk/layout.hpp"
#include "check/image_editor.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <map>

namespace tavelin::test {
namespace {

using Undelete = CommandTest;

using nlohmann::json;

std::map<std::string, json> deletedFiles(const std::string& image) {
    std::map<std::string, json> deleted;
    for (const json& file : tavelinItems({"undelete", "--list", image})) {
        deleted[file.at("path")] = file;
    }
    return deleted;
}

// A deleted file comes back while nobody has its clusters, and what can be said of it is said.
TEST_F(Undelete, CopiesWhatIsLeft) {
    std::string content(2 << 20, 'x');
    for (std::size_t i = 0; i < content.size(); i += 64) {
        content.replace(i, 8, std::to_string(10'000'000 + i));
    }
    tavelinDone({"mkdir", image, "photos"});
    tavelinDone({"put", image, "-", "first"}, "1"); // whose record the next new file gets
    tavelinDone({"put", image, "-", "photos/big"}, content);
    tavelinDone({"put", image, "-", "photos/small"}, "resident");
    tavelinDone({"rm", image, "first", "photos/big", "photos/small"});
    const std::string before = readFile(image);
    auto deleted = deletedFiles(image);
    ASSERT_TRUE(deleted.contains("/photos/big") && deleted.contains("/photos/small"));
    const std::string big = deleted["/photos/big"].at("id");
    EXPECT_EQ(deleted["/photos/big"].at("state"), "free");
    tavelinDone({"undelete", image, big, host / "back"});
    EXPECT_EQ(readFile(host / "back"), content);
    tavelinDone({"undelete", image, deleted["/photos/small"].at("id"), host.path()});
    EXPECT_EQ(readFile(host / "small"), "resident");
    EXPECT_EQ(readFile(image), before);
    expectRefusal(tavelinRun({"undelete", image, big, host / "back"}), kFailed, "exists");
    const std::string reused = big.substr(0, big.find('-')) + "-999";
    expectRefusal(tavelinRun({"undelete", image, reused, host / "x"}), kFailed, "no deleted file");
    expectRefusal(tavelinRun({"undelete", image, big}), 2, "--list");

    // A file that fills the volume takes the clusters, and the record of "first".
    const auto room = tavelinItems({"df", image}).at(0).at("freeBytes").get<std::size_t>();
    put({{"filler", std::string(room - (1 << 20), 'f')}});
    expectRefusal(tavelinRun({"undelete", image, big, host / "y"}), kFailed,
                  "belong to other files");
    tavelinDone({"undelete", "--force", image, big, host / "y"});
}

// Clusters that two deleted files had, and a file whose bytes say nothing by themselves.
TEST_F(Undelete, SaysWhatIsDoubtfulAndWhatIsLost) {
    tavelinDone({"put", image, "-", "first"}, "1"); // whose record the next new file gets
    for (const char* name : {"old", "young", "secret"}) {
        tavelinDone({"put", image, "-", name}, std::string(100'000, name[0]));
    }
    tavelinDone({"rm", image, "first", "old", "young", "secret"});
    const auto before = deletedFiles(image);
    const auto numberOf = [&](const std::string& path) {
        const std::string id = before.at(path).at("id");
        return std::stoull(id.substr(0, id.find('-')));
    };
    editImage(image, [&](ImageEditor& editor) {
        // The editor takes records that are in use.
        const auto markInUse = [&](bool inUse) {
            for (const char* path : {"/old", "/young", "/secret"}) {
                std::uint8_t& flags = editor.rawRecord(numberOf(path))[0x16];
                flags = static_cast<std::uint8_t>((flags & ~ntb::record_in_use) |
                                                  (inUse ? ntb::record_in_use : 0));
            }
        };
        markInUse(true);
        auto runs = editor.runs(numberOf("/young"), ntb::at_data);
        runs.at(0).lcn += 1; // all but one cluster of the other file
        editor.setRuns(numberOf("/old"), ntb::at_data, "", runs);
        editor.editAttribute(numberOf("/secret"), ntb::at_data, "", [](ImageEditor::Bytes data) {
            data[0x0d] |= ntb::attribute_encrypted >> 8;
        });
        markInUse(false);
    });

    const auto deleted = deletedFiles(image);
    EXPECT_EQ(deleted.at("/old").at("state"), "doubtful");
    EXPECT_EQ(deleted.at("/young").at("state"), "doubtful");
    EXPECT_EQ(deleted.at("/secret").at("state"), "unreadable");
    const std::string answer =
        tavelinDone({"undelete", image, deleted.at("/young").at("id"), host / "young"});
    EXPECT_NE(answer.find("doubtful: another deleted file had its clusters"), std::string::npos);
    EXPECT_EQ(readFile(host / "young"), std::string(100'000, 'y'));
    expectRefusal(
        tavelinRun({"undelete", "--force", image, deleted.at("/secret").at("id"), host / "secret"}),
        kFailed, "cannot be put together again");
    EXPECT_FALSE(std::filesystem::exists(host / "secret"));
}

} // namespace
} // namespace tavelin::test
