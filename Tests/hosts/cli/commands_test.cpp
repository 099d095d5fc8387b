// What the commands do to a volume, seen by them and by independent tools.
#include "tavelin_program.hpp"

#include "check/image_editor.hpp"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <sstream>

namespace tavelin::test {
namespace {

using Commands = CommandTest;

using nlohmann::json;
using Names = std::vector<std::string>;

TEST_F(Commands, MakeRenameLinkAndRemove) {
    tavelinDone({"mkdir", image, "photos"});
    tavelinDone({"mkdir", "-p", image, "/photos//2026/11", "photos/2026"});
    put({{"photos/a.jpg", "jpeg"}});
    tavelinDone({"mv", image, "photos/a.jpg", "photos/A.JPG"}); // only its case
    tavelinDone({"mv", image, "photos/A.JPG", "photos/2026"});  // into a directory
    tavelinDone({"ln", "-s", image, "photos/2026", "latest"});
    EXPECT_EQ(tavelinDone({"readlink", image, "latest"}), "photos/2026\n");
    EXPECT_EQ(tavelinDone({"cat", image, "latest/A.JPG"}), "jpeg");
    EXPECT_EQ(volume.cat("photos/2026/A.JPG"), "jpeg");
    EXPECT_EQ(volume.list("photos/2026"), (Names{"11", "A.JPG"}));

    put({{"new", "newer"}});
    tavelinDone({"mv", "--replace", image, "new", "latest/A.JPG"}); // replaces
    EXPECT_EQ(volume.cat("photos/2026/A.JPG"), "newer");
    tavelinDone({"mv", image, "photos/2026/11", "photos/2026/A.JPG", "photos"});
    EXPECT_EQ(volume.list("photos"), (Names{"11", "2026", "A.JPG"}));

    tavelinDone({"rm", image, "latest"}); // the link, not what it points to
    EXPECT_EQ(volume.list("photos"), (Names{"11", "2026", "A.JPG"}));
    tavelinDone({"rm", "-rf", image, "photos", "nowhere", "no/where"});
    EXPECT_EQ(tavelinDone({"ls", "-a", image}), "");
}

TEST_F(Commands, StreamsAndLabel) {
    const std::string bytes = std::string("\0\xff\n", 3) + std::string(100'000, 'x');
    put({{"file", "content"}});
    tavelinDone({"xattr", "set", image, "file", "author", "Ada"});
    tavelinDone({"xattr", "set", image, "file", "raw"}, bytes);
    tavelinDone({"xattr", "set", image, "file", "empty", ""});
    EXPECT_EQ(tavelinDone({"xattr", "get", image, "file", "raw"}), bytes);
    EXPECT_EQ(volume.cat("file", "author"), "Ada");
    EXPECT_EQ(volume.cat("file"), "content");
    tavelinDone({"xattr", "rm", image, "file", "author"});
    const json list = json::parse(tavelinDone({"xattr", "list", "--json", image, "file"}));
    EXPECT_EQ(columnOf(list.at("items"), "name", "size"),
              (json{{"empty", 0}, {"raw", bytes.size()}}));

    // As "file:stream" wherever a file is.
    put({{"file:piped", "from a pipe"}});
    EXPECT_EQ(tavelinDone({"cat", image, "file:piped", "file"}), "from a pipecontent");
    tavelinDone({"get", image, "file:piped", host / "back"});
    EXPECT_EQ(readFile(host / "back"), "from a pipe");
    tavelinDone({"put", image, host / "back", "file:copy"});
    expectRefusal(tavelinRun({"put", image, host / "back", "file:copy"}), kFailed, "is there");
    EXPECT_EQ(tavelinItems({"stat", image, "file:copy"}).at(0).at("size"), 11);
    EXPECT_EQ(tavelinDone({"hash", image, "file:copy"}).substr(64), "  file:copy\n");
    EXPECT_EQ(tavelinDone({"ls", "--streams", image}), "file\nfile:copy\nfile:empty\nfile:piped\n"
                                                       "file:raw\n");
    tavelinDone({"rm", image, "file:copy"});
    EXPECT_EQ(tavelinDone({"xattr", "list", "-R", image, "/"}),
              "file:empty\nfile:piped\nfile:raw\n");
    EXPECT_EQ(tavelinRun({"cat", image, "file:copy"}).status, kFailed);
    tavelinDone({"put", image, "-", "a:b"}, "a name"); // "a" is nothing, so this is one
    EXPECT_EQ(tavelinDone({"cat", image, "a:b"}), "a name");

    tavelinDone({"label", image, "Grüße"});
    EXPECT_EQ(tavelinDone({"label", image}), "Grüße\n");
    EXPECT_NE(runOrThrow({"ntfsinfo", "-m", "-f", image}).find("Grüße"), std::string::npos);
}

// Reading leaves the image as it is, and what is printed for programs can be parsed.
TEST_F(Commands, ThatLookPrintJSONAndChangeNothing) {
    tavelinDone({"mkdir", image, "sub"});
    put({{"sub/odd \"\n\\ name", "12345"}, {".dot", ""}});
    tavelinDone({"ln", "-s", image, "sub", "link"});
    const std::string before = readFile(image);

    EXPECT_TRUE(tavelinItems({"probe", image}).at(0).at("ntfs").get<bool>());
    const json info = tavelinItems({"info", "--stats", image}).at(0);
    EXPECT_EQ(info.at("label"), "Sample");
    EXPECT_EQ(info.at("totalBytes").get<std::uint64_t>() -
                  info.at("usedBytes").get<std::uint64_t>(),
              info.at("freeBytes"));
    // The system files' records and those of what was made; a table's size says nothing.
    EXPECT_GT(info.at("recordsInUse"), 10);
    EXPECT_LT(info.at("recordsInUse"), 100);
    const json& state = info.at("state");
    EXPECT_EQ(state.at("windowsLog"), "empty");
    EXPECT_TRUE(state.at("writable") == true && state.at("dirty") == false &&
                state.at("hibernated") == false)
        << state;
    EXPECT_GT(info.at("stats").at("readBytes"), 0);
    EXPECT_EQ(info.at("stats").at("deviceWrites"), 0);

    EXPECT_EQ(
        columnOf(tavelinItems({"ls", "-R", image}), "path", "type"),
        (json{{"/sub", "directory"}, {"/link", "symlink"}, {"/sub/odd \"\n\\ name", "file"}}));
    EXPECT_EQ(tavelinItems({"ls", "-a", image}).size(), 3u);
    const json odd = tavelinItems({"ls", image, "sub//odd \"\n\\ name"}).at(0);
    EXPECT_EQ(odd.at("size"), 5);
    EXPECT_EQ(odd.at("name"), "odd \"\n\\ name");
    EXPECT_EQ(odd.at("mode"), "0666");
    EXPECT_EQ(odd.at("dosAttributes"), json::array());
    const json link = tavelinItems({"stat", image, "link", "/"});
    EXPECT_EQ(link.at(0).at("target"), "sub");
    EXPECT_EQ(link.at(1).at("id"), 2);
    EXPECT_EQ(tavelinItems({"readlink", image, "link"}).at(0).at("target"), "sub");
    EXPECT_EQ(tavelinItems({"label", image}).at(0).at("label"), "Sample");
    const json check = json::parse(tavelinDone({"check", "-n", "--json", image}));
    EXPECT_TRUE(check.at("summary").at("usable").get<bool>());
    EXPECT_TRUE(check.at("items").empty());

    tavelinDone({"ls", "-l", image});
    tavelinDone({"cat", image, "sub/odd \"\n\\ name"});
    EXPECT_EQ(readFile(image), before);
}

// A program gets one object whatever happens, and what could be answered is in it.
TEST_F(Commands, JSONIsWholeOnEveryPath) {
    put({{"a", "1"}, {"b", "2"}});
    tavelinDone({"ln", "-s", image, "a", "link"});
    const struct {
        std::vector<std::string> words;
        int status;
        std::size_t items;
        std::string code;
    } kTable[] = {
        {{"ls", image, "nowhere", "a"}, 1, 1, "ENOENT"},
        {{"stat", image, "a", "nowhere", "b"}, 1, 2, "ENOENT"},
        {{"readlink", image, "link", "a"}, 1, 1, "EINVAL"},
        {{"xattr", "list", image, "nowhere"}, 1, 0, "ENOENT"},
        {{"get", image, "nowhere", "/tmp"}, 1, 0, "ENOENT"},
        {{"put", image, "/nowhere"}, 1, 0, "ENOENT"},
        {{"info", "/nowhere"}, 1, 0, "ENOENT"},
        {{"label", "/nowhere"}, 1, 0, "ENOENT"},
        {{"probe", "/dev/null"}, 1, 0, "ENOTBLK"},
        {{"check", "/nowhere"}, 3, 0, "ENOENT"},
        {{"info", "--bogus", image}, 2, 0, ""},
    };
    for (const auto& row : kTable) {
        SCOPED_TRACE(row.words[0] + " " + row.words[1]);
        std::vector<std::string> words = row.words;
        words.insert(words.begin() + 1, "--json");
        const ProcessResult result = tavelinRun(words);
        EXPECT_EQ(result.status, row.status) << result.describe();
        const json answer = json::parse(result.out, nullptr, false);
        ASSERT_TRUE(answer.is_object()) << result.out;
        EXPECT_EQ(answer.at("schema"), 1);
        EXPECT_EQ(answer.at("status"), row.status);
        EXPECT_EQ(answer.at("items").size(), row.items);
        ASSERT_EQ(answer.at("errors").size(), 1u) << result.out;
        EXPECT_EQ(answer.at("errors").at(0).at("code"), row.code);
        EXPECT_NE(answer.at("errors").at(0).at("message"), "");
    }
}

TEST_F(Commands, CheckTellsDamageByItsExitStatus) {
    volume.leaveUnchecked();
    put({{"file", "content"}});
    editImage(image, [](ImageEditor& editor) {
        editor.editRecord(editor.record("/file"), [](ImageEditor::Bytes record) {
            record[0x12] = 5; // links
        });
    });
    const ProcessResult shown = tavelinRun({"check", image});
    EXPECT_EQ(shown.status, kFailed) << shown.describe();
    EXPECT_NE(shown.out.find("link-count"), std::string::npos) << shown.out;
    const json told = json::parse(tavelinRun({"check", "--json", image}).out);
    EXPECT_EQ(columnOf(told.at("items"), "path", "class"), (json{{"/file", "link-count"}}));
    EXPECT_EQ(told.at("summary").at("clean"), false);
    EXPECT_EQ(told.at("status"), kFailed);
}

// A path that fails is told, and the others are done.
TEST_F(Commands, GoOnAfterAPathThatFails) {
    tavelinDone({"mkdir", image, "d"});
    put({{"a", "1"}, {"b", "2"}});
    const auto failing = [&](const std::vector<std::string>& words) {
        const ProcessResult result = tavelinRun(words);
        EXPECT_EQ(result.status, 1) << result.describe();
        EXPECT_NE(result.err.find("none: No such file"), std::string::npos) << result.describe();
        return result.out;
    };
    EXPECT_EQ(failing({"cat", image, "a", "none", "b"}), "12");
    EXPECT_EQ(failing({"ls", "-r", image, "none", "b", "a"}), "b\na\n");
    EXPECT_EQ(failing({"get", "-t", host.path(), image, "none", "a", "b"}), "");
    EXPECT_EQ(readFile(host / "b"), "2");
    failing({"mv", image, "none", "a", "d"});
    EXPECT_EQ(volume.list("d"), Names{"a"});
    failing({"rm", image, "none", "b"});
    EXPECT_EQ(volume.list(), Names{"d"});
    // Each path has its own sections, also where one is inside another.
    EXPECT_EQ(tavelinDone({"ls", "-R", image, "/", "d"}), "/:\nd\n\nd:\na\n\nd:\na\n");
}

TEST_F(Commands, ListInTheOrderThatWasAskedFor) {
    for (const auto& [name, bytes] : {std::pair{"a", 3000}, {"b", 1}, {"c", 2}}) {
        tavelinDone({"put", image, "-", name}, std::string(static_cast<std::size_t>(bytes), 'x'));
    }
    EXPECT_EQ(tavelinDone({"ls", "-S", image}), "a\nc\nb\n");
    EXPECT_EQ(tavelinDone({"ls", "-t1", image}), "c\nb\na\n");
    EXPECT_EQ(tavelinDone({"ls", "-tr", image}), "a\nb\nc\n");
    EXPECT_EQ(tavelinDone({"ls", "-d", image, "/"}), "/\n");
    EXPECT_NE(tavelinDone({"ls", "-lh", image}).find(" 2.9 KiB "), std::string::npos);
}

// Also where the directory has grown by many splits of its index, whose blocks then lie anyhow.
TEST_F(Commands, ListLargeDirectoriesByName) {
    std::string lines = "mkdir d\n";
    std::string names;
    constexpr int kCount = 700;
    for (int i = 0; i < kCount; ++i) {
        // Names go by upper case.
        lines += fmt::format("mkdir d/{}{}\n", i % 2 == 0 ? 'f' : 'F', 1000 + i * 499 % kCount);
    }
    tavelinDone({"batch", image}, lines);
    for (int i = 0; i < kCount; ++i) {
        names += fmt::format("F{}\n", 1000 + i);
    }
    std::string listed = tavelinDone({"ls", image, "d"});
    std::replace(listed.begin(), listed.end(), 'f', 'F');
    EXPECT_EQ(listed, names);
    const std::string tree = tavelinDone({"tree", image, "d"});
    EXPECT_EQ(tree.find("└── "), tree.rfind("└── "));
    EXPECT_NE(tree.find("└── F1699\n\n700 directories"), std::string::npos) << tree.substr(9900);
}

TEST_F(Commands, WaitForAnImageThatIsInUse) {
    RunningTavelin user({"batch", image});
    user.write("mkdir made\nls\n");
    ASSERT_EQ(user.readLine(), "made");
    const std::string who = fmt::format("process {} (tavelin) has it open", user.id());
    expectRefusal(tavelinRun({"ls", image}), kFailed, who);
    expectRefusal(tavelinRun({"mkdir", image, "new"}), kFailed, who);
    const SampleVolume free;
    expectRefusal(tavelinRun({"diff", free.image(), "/", "--with", image}), kFailed, who);
    // Its messages on the output that is read line by line.
    RunningProcess waiting(
        {"sh", "-c", "exec \"$0\" ls --wait \"$1\" 2>&1", TAVELIN_PROGRAM, image});
    const std::string told = waiting.readLine();
    EXPECT_NE(told.find("waiting until it is free; " + who), std::string::npos) << told;
    EXPECT_TRUE(user.finish("mkdir more\n").ok());
    EXPECT_EQ(waiting.finish().out, "made\nmore\n");
}

TEST_F(Commands, GoThroughWholeTrees) {
    tavelinDone({"mkdir", "-p", image, "photos/2026"});
    put({{"photos/2026/a.jpg", std::string(100'000, 'x')}, {"photos/b.JPG", "abc"}, {"notes", ""}});
    const std::string before = readFile(image);

    EXPECT_EQ(tavelinDone({"find", image, "*.jpg"}), "photos/2026/a.jpg\nphotos/b.JPG\n");
    EXPECT_EQ(tavelinDone({"find", image, "photos/*.jpg", "n*"}), "notes\nphotos/b.JPG\n");
    EXPECT_EQ(tavelinDone({"find", "--type", "d", image}), "photos\nphotos/2026\n");
    EXPECT_EQ(tavelinItems({"find", image, "b.jpg"}).at(0).at("path"), "/photos/b.JPG");

    EXPECT_EQ(tavelinDone({"tree", "-s", image}), "/\n"
                                                  "├── [0]  notes\n"
                                                  "└── [0]  photos\n"
                                                  "    ├── [0]  2026\n"
                                                  "    │   └── [100000]  a.jpg\n"
                                                  "    └── [3]  b.JPG\n"
                                                  "\n2 directories, 3 files\n");
    EXPECT_EQ(tavelinDone({"tree", "-L", "1", image, "photos"}),
              "photos\n├── 2026\n└── b.JPG\n\n1 directories, 1 files\n");

    const json usage = tavelinItems({"du", image});
    ASSERT_EQ(usage.size(), 3u);
    EXPECT_EQ(usage.at(0).at("path"), "/photos/2026");
    EXPECT_GE(usage.at(0).at("allocated"), 100'000);
    EXPECT_LE(usage.at(0).at("allocated"), usage.at(1).at("allocated"));
    EXPECT_EQ(usage.at(2).at("path"), "/");
    EXPECT_EQ(usage.at(2).at("bytes"), 100'003);
    EXPECT_EQ(usage.at(2).at("files"), 3);
    const json space = tavelinItems({"df", image}).at(0);
    EXPECT_EQ(space.at("totalBytes"), space.at("usedBytes").get<std::uint64_t>() +
                                          space.at("freeBytes").get<std::uint64_t>());
    EXPECT_EQ(readFile(image), before);
}

// The manifest is the one of sha256sum, which finds the copies sound.
TEST_F(Commands, HashAsTheSystemDoes) {
    tavelinDone({"mkdir", image, "d"});
    put({{"d/odd\\name\nof two lines", std::string(3'000'000, 'x')}, {"d/empty", ""}});
    tavelinDone({"get", image, "d", host / "d"});
    writeFile(host / "manifest", tavelinDone({"hash", image, "d"}));
    const ProcessResult check =
        run({"env", "-C", host.path(), "sha256sum", "-c", "--strict", "manifest"});
    EXPECT_EQ(check.status, 0) << check.describe();
    EXPECT_EQ(std::count(check.out.begin(), check.out.end(), '\n'), 2) << check.out;
    expectRefusal(tavelinRun({"hash", image, "none"}), 1, "No such file");

    EXPECT_EQ(tavelinDone({"diff", image, "d", host / "d"}), "");
    writeFile(host / "d/empty", "x");
    writeFile(host / "d/more", "");
    const ProcessResult differ = tavelinRun({"diff", image, "d", host / "d"});
    EXPECT_EQ(differ.status, 1) << differ.describe();
    EXPECT_EQ(differ.out, "empty: have different sizes\nmore: is only on this system\n");
    EXPECT_EQ(differ.err, "");
}

// By the names of a tree's items, what is said of them, and what programs are told.
TEST_F(Commands, DiffOfTwoVolumes) {
    const SampleVolume second;
    const std::string other = second.image();
    const std::string content(1'500'000, 'x');
    for (const std::string& each : {image, other}) {
        const bool isFirst = each == image;
        tavelinDone({"mkdir", "-p", each, "d/same", isFirst ? "d/kind" : "copy"});
        tavelinDone({"put", each, "-", "d/same/file"}, content);
        tavelinDone({"ln", "-s", each, "file", "d/same/link"});
        tavelinDone({"put", each, "-", "d/size"}, isFirst ? "longer" : "short");
        tavelinDone({"put", each, "-", "d/end"}, content + (isFirst ? "a" : "b"));
        tavelinDone({"ln", "-s", each, isFirst ? "here" : "there", "d/target"});
        tavelinDone({"put", each, "-", isFirst ? "d/a" : "d/z"}, "");
    }
    tavelinDone({"put", other, "-", "d/kind"}, "");
    tavelinDone({"mkdir", image, "copy"});
    put({{"copy/file", content}});
    tavelinDone({"ln", "-s", image, "file", "copy/link"});
    const std::string before = readFile(image) + readFile(other);

    const std::string names = "a: is only in the first directory\n"
                              "kind: are of different types\n"
                              "size: have different sizes\n"
                              "target: point to different places\n"
                              "z: is only in the second directory\n";
    std::string all = names;
    all.insert(all.find("kind"), "end: have different contents\n");
    const struct {
        std::vector<std::string> words;
        int status;
        std::string out;
    } rows[] = {
        {{image, "d/same", "--with", other}, 0, ""},
        {{image, "d", "--with", other}, 1, all},
        {{image, "d", "--with", other, "--quick"}, 1, names},
        {{image, "/copy", "/d/same", "--with", other}, 0, ""},
        {{image, "/", "--with", image}, 0, ""},
        {{image, "copy", "d/same", "--with", volume.directory() / "./" / volume.image().filename()},
         0,
         ""},
        {{image, "copy", "/", "--with", image},
         1,
         "file: is only in the first directory\nlink: is only in the first directory\n"
         "copy: is only in the second directory\nd: is only in the second directory\n"},
    };
    for (const auto& row : rows) {
        std::vector<std::string> words = row.words;
        words.insert(words.begin(), "diff");
        const ProcessResult result = tavelinRun(words);
        EXPECT_EQ(result.status, row.status) << result.describe();
        EXPECT_EQ(result.out, row.out);
        EXPECT_EQ(result.err, "");
    }
    const auto told = json::parse(tavelinRun({"diff", "--json", image, "d", "--with", other}).out);
    EXPECT_EQ(columnOf(told.at("items"), "path", "difference"), (json{{"/a", "only-on-volume"},
                                                                      {"/end", "content"},
                                                                      {"/kind", "type"},
                                                                      {"/size", "size"},
                                                                      {"/target", "target"},
                                                                      {"/z", "only-on-other"}}));
    EXPECT_EQ(readFile(image) + readFile(other), before);

    expectRefusal(tavelinRun({"diff", image, "/", "--with", other + "2"}), 1, "volume.img2");
    expectRefusal(tavelinRun({"diff", image, "d", "none", "--with", other}), 1, "none: No such");
    expectRefusal(tavelinRun({"diff", image, "d", "d/a", "--with", image}), 1, "no directory");
    expectRefusal(tavelinRun({"diff", image, "d"}), 2, "DIR is required");
    // A shell may change the one while it compares it.
    EXPECT_EQ(tavelinDone({"batch", image}, "cd d/same\nmkdir new\nrm -r new\ndiff --with " +
                                                other + " .\nmkdir new\nrm -r new\ndiff --with " +
                                                image + " . /copy\n"),
              "");
}

TEST_F(Commands, HelpTeachesEveryCommand) {
    const std::string overview = tavelinDone({"--help"});
    std::istringstream commands(overview);
    for (std::string row; std::getline(commands, row);) {
        if (!row.starts_with("  ") || std::string(" -").find(row[2]) != std::string::npos) {
            continue; // what is no command
        }
        std::string command;
        std::istringstream(row) >> command;
        const std::string help = tavelinDone({"help", command});
        EXPECT_NE(help.find("Usage: tavelin " + command), std::string::npos) << help;
        EXPECT_NE(help.find("Examples:"), std::string::npos) << command;
        std::istringstream lines(overview + help);
        for (std::string line; std::getline(lines, line);) {
            EXPECT_LE(line.size(), 80u) << command << ": " << line;
        }
    }
}

} // namespace
} // namespace tavelin::test
