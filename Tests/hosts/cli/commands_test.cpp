// What the commands do to a volume, seen by them and by independent tools.
#include "tavelin_program.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace tavelin::test {
namespace {

using nlohmann::json;
using Names = std::vector<std::string>;

TEST(Commands, MakeRenameLinkAndRemove) {
    const SampleVolume volume;
    const std::string image = volume.image();
    tavelinDone({"mkdir", image, "photos"});
    tavelinDone({"mkdir", "-p", image, "/photos//2026/11", "photos/2026"});
    tavelinDone({"put", image, "-", "photos/a.jpg"}, "jpeg");
    tavelinDone({"mv", image, "photos/a.jpg", "photos/A.JPG"}); // only its case
    tavelinDone({"mv", image, "photos/A.JPG", "photos/2026"});  // into a directory
    tavelinDone({"ln", "-s", image, "photos/2026", "latest"});
    EXPECT_EQ(tavelinDone({"readlink", image, "latest"}), "photos/2026\n");
    EXPECT_EQ(tavelinDone({"cat", image, "latest/A.JPG"}), "jpeg");
    EXPECT_EQ(volume.cat("photos/2026/A.JPG"), "jpeg");
    EXPECT_EQ(volume.list("photos/2026"), (Names{"11", "A.JPG"}));

    tavelinDone({"put", image, "-", "new"}, "newer");
    tavelinDone({"mv", "--replace", image, "new", "latest/A.JPG"}); // replaces
    EXPECT_EQ(volume.cat("photos/2026/A.JPG"), "newer");
    tavelinDone({"mv", image, "photos/2026/11", "photos/2026/A.JPG", "photos"});
    EXPECT_EQ(volume.list("photos"), (Names{"11", "2026", "A.JPG"}));

    tavelinDone({"rm", image, "latest"}); // the link, not what it points to
    EXPECT_EQ(volume.list("photos"), (Names{"11", "2026", "A.JPG"}));
    tavelinDone({"rm", "-rf", image, "photos", "nowhere", "no/where"});
    EXPECT_EQ(tavelinDone({"ls", "-a", image}), "");
    volume.check();
}

TEST(Commands, StreamsAndLabel) {
    const SampleVolume volume;
    const std::string image = volume.image();
    const std::string bytes = std::string("\0\xff\n", 3) + std::string(100'000, 'x');
    tavelinDone({"put", image, "-", "file"}, "content");
    tavelinDone({"xattr", "set", image, "file", "author", "Ada"});
    tavelinDone({"xattr", "set", image, "file", "raw"}, bytes);
    tavelinDone({"xattr", "set", image, "file", "empty", ""});
    EXPECT_EQ(tavelinDone({"xattr", "get", image, "file", "raw"}), bytes);
    EXPECT_EQ(volume.cat("file", "author"), "Ada");
    EXPECT_EQ(volume.cat("file"), "content");
    tavelinDone({"xattr", "rm", image, "file", "author"});
    const json list = json::parse(tavelinDone({"xattr", "list", "--json", image, "file"}));
    std::map<std::string, std::size_t> sizes;
    for (const json& stream : list) {
        sizes[stream.at("name")] = stream.at("size");
    }
    EXPECT_EQ(sizes, (std::map<std::string, std::size_t>{{"empty", 0}, {"raw", bytes.size()}}));

    tavelinDone({"label", image, "Grüße"});
    EXPECT_EQ(tavelinDone({"label", image}), "Grüße\n");
    EXPECT_NE(runOrThrow({"ntfsinfo", "-m", "-f", image}).find("Grüße"), std::string::npos);
}

// Reading leaves the image as it is, and what is printed for programs can be parsed.
TEST(Commands, ThatLookPrintJSONAndChangeNothing) {
    const SampleVolume volume;
    const std::string image = volume.image();
    tavelinDone({"mkdir", image, "sub"});
    tavelinDone({"put", image, "-", "sub/odd \"\n\\ name"}, "12345");
    tavelinDone({"put", image, "-", ".dot"}, "");
    tavelinDone({"ln", "-s", image, "sub", "link"});
    const std::string before = readFile(image);
    const auto parsed = [&](std::vector<std::string> words) {
        words.insert(words.begin() + 1, "--json");
        return json::parse(tavelinDone(words));
    };

    EXPECT_TRUE(parsed({"probe", image}).at("ntfs").get<bool>());
    const json info = parsed({"info", "--stats", image});
    EXPECT_EQ(info.at("label"), "Sample");
    EXPECT_EQ(info.at("totalBytes").get<std::uint64_t>() -
                  info.at("usedBytes").get<std::uint64_t>(),
              info.at("freeBytes"));
    EXPECT_GT(info.at("stats").at("readBytes"), 0);
    EXPECT_EQ(info.at("stats").at("deviceWrites"), 0);

    std::map<std::string, std::string> types;
    for (const json& item : parsed({"ls", "-R", image})) {
        types[item.at("path")] = item.at("type");
    }
    EXPECT_EQ(types,
              (std::map<std::string, std::string>{
                  {"sub", "directory"}, {"link", "symlink"}, {"sub/odd \"\n\\ name", "file"}}));
    EXPECT_EQ(parsed({"ls", "-a", image}).size(), 3u);
    EXPECT_EQ(parsed({"ls", image, "sub/odd \"\n\\ name"}).at(0).at("size"), 5);
    const json link = parsed({"stat", image, "link", "/"});
    EXPECT_EQ(link.at(0).at("target"), "sub");
    EXPECT_EQ(link.at(1).at("id"), 2);
    EXPECT_EQ(parsed({"readlink", image, "link"}).at(0).at("target"), "sub");
    EXPECT_EQ(parsed({"label", image}).at("label"), "Sample");
    EXPECT_TRUE(parsed({"check", "-n", image}).at("usable").get<bool>());

    tavelinDone({"ls", "-l", image});
    tavelinDone({"cat", image, "sub/odd \"\n\\ name"});
    EXPECT_EQ(readFile(image), before);
}

TEST(Commands, HelpTeachesEveryCommand) {
    const std::string overview = tavelinDone({"--help"});
    for (const char* const command :
         {"probe", "info", "ls", "stat", "cat", "readlink", "check", "get", "put", "mkdir", "rm",
          "mv", "ln", "xattr", "label", "events"}) {
        EXPECT_NE(overview.find("\n  " + std::string(command) + " "), std::string::npos) << command;
        const std::string help = tavelinDone({"help", command});
        EXPECT_NE(help.find("Usage: tavelin " + std::string(command)), std::string::npos) << help;
        EXPECT_NE(help.find("Examples:"), std::string::npos) << command;
    }
}

} // namespace
} // namespace tavelin::test
