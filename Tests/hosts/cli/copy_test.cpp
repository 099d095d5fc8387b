// put and get: what goes in comes out, and nothing else is touched.
#include "tavelin_program.hpp"

#include "hosting/module_host.hpp"
#include "hosting/paths.hpp"
#include "hosts/tree.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cerrno>
#include <fcntl.h>
#include <fstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace tavelin::test {
namespace {

using Copy = CommandTest;

namespace fs = std::filesystem;

std::string randomBytes(std::size_t count) {
    std::string bytes(count, '\0');
    std::uint32_t state = 12345;
    for (char& byte : bytes) {
        state = state * 1664525 + 1013904223;
        byte = static_cast<char>(state >> 24);
    }
    return bytes;
}

/// A tree with what goes wrong most easily.
void makeOddTree(const fs::path& tree) {
    makeTree(tree, 100);
    fs::path deep = tree / "deep";
    for (int i = 0; i < 60; ++i) {
        deep /= "level";
    }
    fs::create_directories(deep);
    writeFile(deep / "bottom", "deep");
    fs::create_directories(tree / "odd" / "empty folder");
    for (const std::string& name :
         {std::string("Grüße 日本 🎉"), std::string("back\\slash"), std::string("a:b|c?*<>\""),
          std::string("dot."), std::string(" space "), std::string("new\nline \x1b[1m"),
          std::string("-dash"), std::string(255, 'n'), std::string("CON")}) {
        writeFile(tree / "odd" / name, name);
    }
    writeFile(tree / "exact", randomBytes(1 << 20));
    writeFile(tree / "big", randomBytes((5 << 20) + 1));
    fs::create_symlink("../odd", tree / "deep" / "relative");
    fs::create_symlink("/no/such/place", tree / "dangling");
    fs::create_symlink(".", tree / "circle");
    setModified(tree / "big", {1, 123456700});
    setModified(tree / "dangling", {946684799, 999999900});
    setModified(tree / "odd", {-11644473600 + 86400, 100}); // in 1601
}

TEST_F(Copy, ATreeComesBackAsItWas) {
    const fs::path tree = host / "tree";
    makeOddTree(tree);
    const auto report = tavelinItems({"put", image, tree}).at(0);
    EXPECT_EQ(report.at("files"), 110);
    EXPECT_EQ(report.at("links"), 5);
    EXPECT_EQ(report.at("streams"), 4);
    EXPECT_EQ(volume.cat("tree/big"), readFile(tree / "big"));
    EXPECT_EQ(volume.cat("tree/odd/back\\slash"), "back\\slash");
    EXPECT_EQ(volume.list("tree/odd").size(), 10u + 1); // one name is two lines

    const std::string before = readFile(image);
    const auto expectCopy = [&](const fs::path& copy) {
        EXPECT_EQ(firstDifference(readTree(tree, true), readTree(copy, true)), "");
    };
    tavelinDone({"get", image, "tree", host / "back"}); // under a new name
    expectCopy(host / "back");
    fs::create_directory(host / "whole");
    tavelinDone({"get", image, "/", host / "whole"}); // everything, into a directory
    expectCopy(host / "whole" / "tree");
    EXPECT_EQ(readFile(image), before);

    tavelinDone({"rm", "-r", image, "tree"});
    EXPECT_EQ(tavelinDone({"ls", "-a", image}), "");
}

// Names of one file on the volume are names of one file on the host, wherever they are in the tree.
TEST_F(Copy, HardLinksStayLinks) {
    tavelinDone({"mkdir", "-p", image, "a/b"});
    put({{"a/first", "content"}});
    {
        const auto module = ModuleHost::openImage(image, {});
        VolumeClient& client = module->volume();
        const ItemRef file = resolve(client, "a/first").get().item;
        for (const char* directory : {"", "a/b"}) {
            ASSERT_TRUE(client.linkInternal(file, resolve(client, directory).get().item, "second"));
        }
        ASSERT_TRUE(module->close());
    }
    for (int round = 0; round < 2; ++round) { // the second one replaces what the first has made
        const auto report = tavelinItems({"get", image, "/", host.path()}).at(0);
        EXPECT_EQ(report.at("files"), 1);
        EXPECT_EQ(report.at("hardLinks"), 2);
        EXPECT_EQ(fs::hard_link_count(host / "a" / "b" / "second"), 3u);
        EXPECT_TRUE(fs::equivalent(host / "second", host / "a" / "first"));
    }
    EXPECT_EQ(readFile(host / "second"), "content");
}

// A hole takes no room on either side; reading it answers zeros.
TEST_F(Copy, HolesStayHoles) {
    constexpr std::uintmax_t kBytes = (100ull << 20) + 5; // more than the volume has
    const std::string sparse = host / "sparse";
    writeFile(sparse, randomBytes(200'000));
    fs::resize_file(sparse, 50 << 20);
    std::ofstream(sparse, std::ios::app) << "tail";
    fs::resize_file(sparse, kBytes);
    tavelinDone({"put", image, sparse});
    const auto item = tavelinItems({"stat", image, "sparse"}).at(0);
    EXPECT_EQ(item.at("size"), kBytes);
    EXPECT_LT(item.at("allocated"), 1 << 20);
    tavelinDone({"get", image, "sparse", host / "back"});
    EXPECT_EQ(fs::file_size(host / "back"), kBytes);
    EXPECT_EQ(run({"cmp", sparse, host / "back"}).status, 0);
    struct ::stat status {};
    ASSERT_EQ(stat((host / "back").c_str(), &status), 0);
    EXPECT_LT(status.st_blocks * 512, 1 << 20);
}

TEST_F(Copy, ReplacesFilesAndMergesDirectories) {
    const fs::path a = host / "a";
    fs::create_directories(a / "sub");
    writeFile(a / "sub" / "one", "1");
    writeFile(a / "file", "long content");
    tavelinDone({"put", image, a});
    fs::remove(a / "sub" / "one");
    writeFile(a / "sub" / "two", "2");
    writeFile(a / "file", "short");
    tavelinDone({"put", image, a});
    const auto expectOnVolume = [&] {
        EXPECT_EQ(volume.list("a/sub"), (std::vector<std::string>{"one", "two"}));
        EXPECT_EQ(volume.cat("a/file"), "short");
    };
    expectOnVolume();

    writeFile(a / "file", "old and longer");
    writeFile(a / "mine", "mine");
    tavelinDone({"get", image, "a", host.path()});
    EXPECT_EQ(readFile(a / "file"), "short");
    EXPECT_EQ(readFile(a / "mine"), "mine");

    // A file never takes the place of a directory, nor the other way round.
    fs::create_directories(host / "b/a/file");
    writeFile(host / "b/a/sub", "file");
    const ProcessResult refused = tavelinRun({"put", image, host / "b/a"});
    EXPECT_EQ(refused.status, kFailed);
    for (const char* const said :
         {"a/file: something else than a directory", "a/sub: a directory has", "2 problems"}) {
        EXPECT_NE(refused.err.find(said), std::string::npos) << said << " in " << refused.err;
    }
    expectOnVolume();
    EXPECT_EQ(tavelinRun({"get", image, "a", host / "b"}).status, kFailed);
    EXPECT_TRUE(fs::is_directory(host / "b/a/file"));
    EXPECT_EQ(runOrThrow({"find", host / "b", "-name", ".tavelin-part*"}), "");
    EXPECT_EQ(readFile(host / "b/a/sub"), "file");
}

// The last of two paths is easily one that a shell's pattern has put there.
TEST_F(Copy, ATargetIsNeverAFileThatNobodyMeant) {
    writeFile(host / "a.jpg", "first");
    writeFile(host / "b.jpg", "second");
    put({{"a.jpg", "first"}, {"taken", "taken"}, {"b.jpg", "on the volume"}});
    const std::string before = readFile(image);
    const auto here = [&](const std::vector<std::string>& words) {
        return tavelinUnder("cd " + host.path().string() + "; \"$@\"", words);
    };
    const struct {
        std::vector<std::string> words;
        std::string hint;
    } kRefused[] = {
        {{"put", image, host / "a.jpg", host / "b.jpg"}, "-t /"},
        {{"put", image, "a.jpg", "b.jpg"}, "-t /"},
        {{"put", image, "a.jpg", "/taken"}, "--replace"},
        {{"put", image, "-", "taken"}, "--replace"},
        {{"put", image, "a.jpg", "nowhere/"}, "no such directory"},
        {{"put", "-t", "nowhere", image, "a.jpg"}, "no such directory"},
        {{"get", image, "taken", "b.jpg"}, "--replace"},
        {{"get", image, "a.jpg", "taken"}, "-t ."},
        {{"get", "-t", "nowhere", image, "a.jpg"}, "no such directory"},
        {{"mv", image, "taken", "nowhere/"}, "no such directory"},
        {{"mv", image, "taken", "b.jpg"}, "--replace"},
        {{"mv", "-t", "nowhere", image, "taken"}, "nowhere"},
    };
    for (const auto& row : kRefused) {
        SCOPED_TRACE(row.words[0] + " " + row.words[2] + " " + row.words[3]);
        expectRefusal(here(row.words), kFailed, row.hint);
    }
    EXPECT_EQ(readFile(image), before);
    EXPECT_EQ(readFile(host / "b.jpg"), "second");
    EXPECT_FALSE(fs::exists(host / "taken"));

    for (const std::vector<std::string>& words :
         {std::vector<std::string>{"put", "-t", "/", image, "a.jpg", "b.jpg"},
          {"put", "--replace", image, "a.jpg", "taken"},
          {"put", image, "a.jpg", "/c.jpg"},
          {"get", "--replace", image, "taken", "b.jpg"},
          {"get", image, "b.jpg", "./taken"},
          {"get", "-t", ".", image, "c.jpg"}}) {
        EXPECT_TRUE(here(words).ok()) << words[1] << " " << words[2];
    }
    EXPECT_EQ(volume.cat("b.jpg") + volume.cat("taken"), "secondfirst");
    EXPECT_EQ(readFile(host / "b.jpg") + readFile(host / "taken") + readFile(host / "c.jpg"),
              "firstsecondfirst");
}

TEST_F(Copy, LeavesOutWhatItCannotCopyAndGoesOn) {
    const fs::path tree = volume.directory().path(); // holds the image itself
    mkfifo((tree / "pipe").c_str(), 0600);
    writeFile(tree / "caf\xe9", "not UTF-8");
    writeFile(tree / "zuletzt", "last");
    const ProcessResult result = tavelinRun({"put", image, tree.string() + "/."});
    EXPECT_EQ(result.status, kFailed);
    for (const char* const said : {"the image itself", "pipe: ", "caf\\xe9: ", "3 problems"}) {
        EXPECT_NE(result.err.find(said), std::string::npos) << said << " in " << result.err;
    }
    EXPECT_EQ(tavelinDone({"ls", "-a", image}), "zuletzt\n");
    // Nor does a copy out of the image replace it.
    const std::string name = fs::path(image).filename();
    tavelinDone({"put", image, "-", name}, "impostor");
    expectRefusal(tavelinRun({"get", image, name, tree}), kFailed, "the image itself");
    EXPECT_EQ(tavelinDone({"cat", image, name}), "impostor");
}

// No host keeps attributes of any size; what does not fit is told, never dropped in silence.
TEST_F(Copy, StreamsThatTheHostHasNoRoomForAreToldAndCanBeLeftOut) {
    put({{"file", "content"}});
    tavelinDone({"xattr", "set", image, "file", "huge"}, std::string(100'000, 'x'));
    expectRefusal(tavelinRun({"get", image, "file", host.path()}), kFailed, "--no-streams");
    EXPECT_EQ(readFile(host / "file"), "content");
    tavelinDone({"get", "--no-streams", image, "file", host / "second"});
    EXPECT_EQ(readFile(host / "second"), "content");
}

/// Replaces a name wherever the volume has it, in UTF-16, by one of the same length.
void forgeName(const fs::path& image, const std::string& name, const std::string& forged) {
    const auto utf16 = [](const std::string& text) {
        std::string units;
        for (const char unit : text) {
            units += unit;
            units += '\0';
        }
        return units;
    };
    ASSERT_EQ(name.size(), forged.size());
    std::string bytes = readFile(image);
    int found = 0;
    for (std::size_t at = 0; (at = bytes.find(utf16(name), at)) != std::string::npos; ++found) {
        bytes.replace(at, utf16(name).size(), utf16(forged));
    }
    ASSERT_GE(found, 2) << "in the record and in the index";
    writeFile(image, bytes);
}

// A file system keeps new bytes in memory for seconds, unless it is told to write them out.
TEST_F(Copy, GetEndsWhenTheCopyIsOnTheMedium) {
    const std::string content = "what the disk has to have";
    put({{"file", content}});
    writeFile(host / "disk", "");
    fs::resize_file(host / "disk", 16 << 20);
    fs::create_directory(host / "mounted");
    runOrThrow({"mkfs.ext4", "-q", host / "disk"});
    const auto onDisk = [&](const std::string& script) { // its mount ends with the script
        return run({"unshare", "-m", "sh", "-ec", "mount -o loop \"$1\" \"$2\"; " + script,
                    TAVELIN_PROGRAM, host / "disk", host / "mounted", image, content});
    };
    if (const ProcessResult mounted = onDisk(""); !mounted.ok()) {
        GTEST_SKIP() << "no disk to copy to: " << mounted.err;
    }
    const ProcessResult got = onDisk("\"$0\" get -q \"$3\" file \"$2\"; grep -qF \"$4\" \"$1\"");
    EXPECT_TRUE(got.ok()) << got.describe();
}

TEST_F(Copy, GetNeverLeavesItsTarget) {
    volume.leaveUnchecked();
    const std::string absolute = host / "absolute escape";
    const std::string standIn = "12345" + std::string(absolute.size() - 5, 's');
    tavelinDone({"mkdir", "-p", image, "d/qz", "d2"});
    put({{"d/123456escape", "escaped"},
         {"d/" + standIn, "escaped"},
         {"d/qz/escape", "escaped"},
         {"d2/escape", "escaped"},
         {"d/..\\escape", "ordinary"}});
    tavelinDone({"ln", "-s", image, host / "elsewhere", "d/link"});
    forgeName(image, "123456escape", "../../escape");
    forgeName(image, standIn, absolute);
    forgeName(image, "qz", "..");

    fs::create_directories(host / "elsewhere");
    const fs::path target = host / "out/inner";
    fs::create_directories(target);
    // A link that waits in the target, where a directory of the volume is to go.
    fs::create_directory_symlink(host / "elsewhere", target / "d2");
    const ProcessResult get = tavelinRun({"get", image, "d", target});
    EXPECT_EQ(get.status, kFailed);
    EXPECT_NE(get.err.find("would lead out"), std::string::npos) << get.describe();
    expectRefusal(tavelinRun({"get", image, "d2", target}), kFailed, "something else");

    EXPECT_EQ(readFile(target / "d" / "..\\escape"), "ordinary");
    EXPECT_TRUE(fs::is_symlink(target / "d" / "link"));
    EXPECT_EQ(runOrThrow({"find", host.path(), "-name", "*escape", "-not", "-path", target / "*"}),
              "");
}

} // namespace
} // namespace tavelin::test
