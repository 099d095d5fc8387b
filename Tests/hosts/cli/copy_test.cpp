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
#include <sys/xattr.h>
#include <unistd.h>

namespace tavelin::test {
namespace {

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

void setTime(const fs::path& path, std::time_t seconds, long nanoseconds) {
    const std::timespec times[2] = {{seconds, 0}, {seconds, nanoseconds}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
}

/// A tree with what goes wrong most easily. Answers whether attributes could be set.
bool makeOddTree(const fs::path& tree) {
    const std::string odd[] = {
        "Grüße 日本 🎉",      "back\\slash", "a:b|c?*<>\"",         "dot.", " space ",
        "new\nline \x1b[1m", "-dash",       std::string(255, 'n'), "CON"};
    fs::path deep = tree / "deep";
    for (int i = 0; i < 60; ++i) {
        deep /= "level";
    }
    fs::create_directories(deep);
    fs::create_directories(tree / "odd" / "empty folder");
    writeFile(deep / "bottom", "deep");
    for (const std::string& name : odd) {
        writeFile(tree / "odd" / name, name);
    }
    writeFile(tree / "empty", "");
    writeFile(tree / "exact", randomBytes(1 << 20));
    writeFile(tree / "big", randomBytes((5 << 20) + 1));
    for (int i = 0; i < 300; ++i) {
        writeFile(tree / "odd" / ("many " + std::to_string(i)), std::to_string(i));
    }
    fs::create_symlink("../odd", tree / "deep" / "relative");
    fs::create_symlink("/no/such/place", tree / "dangling");
    fs::create_symlink(".", tree / "circle");
    const bool attributes = setxattr((tree / "big").c_str(), "user.author", "Ada", 3, 0) == 0 &&
                            setxattr((tree / "odd").c_str(), "user.author", "Grace", 5, 0) == 0;
    setTime(tree / "big", 1, 123456700);
    setTime(tree / "dangling", 946684799, 999999900);
    setTime(tree / "odd", -11644473600 + 86400, 100); // in 1601
    return attributes;
}

TEST(Copy, ATreeComesBackAsItWas) {
    const SampleVolume volume({.bytes = 64ull << 20});
    const TempDirectory host;
    const std::string image = volume.image();
    const fs::path tree = host / "tree";
    const bool attributes = makeOddTree(tree);

    const auto report = tavelinItems({"put", image, tree}).at(0);
    EXPECT_EQ(report.at("files"), 313);
    EXPECT_EQ(report.at("links"), 3);
    EXPECT_EQ(report.at("streams"), attributes ? 2 : 0);
    EXPECT_EQ(volume.cat("tree/big"), readFile(tree / "big"));
    EXPECT_EQ(volume.cat("tree/odd/back\\slash"), "back\\slash");
    EXPECT_EQ(volume.list("tree/odd").size(), 310u + 1); // one name is two lines
    if (attributes) {
        EXPECT_EQ(volume.cat("tree/big", "author"), "Ada");
    }
    volume.check();

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
    volume.check();
}

// Names of one file on the volume are names of one file on the host, wherever they are in the tree.
TEST(Copy, HardLinksStayLinks) {
    const SampleVolume volume;
    const TempDirectory host;
    const std::string image = volume.image();
    tavelinDone({"mkdir", "-p", image, "a/b"});
    tavelinDone({"put", image, "-", "a/first"}, "content");
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
TEST(Copy, HolesStayHoles) {
    const SampleVolume volume;
    const TempDirectory host;
    const std::string image = volume.image();
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
    volume.check();
}

TEST(Copy, ReplacesFilesAndMergesDirectories) {
    const SampleVolume volume;
    const TempDirectory host;
    const std::string image = volume.image();
    fs::create_directories(host / "a" / "sub");
    writeFile(host / "a/sub" / "one", "1");
    writeFile(host / "a" / "file", "long content");
    tavelinDone({"put", image, host / "a"});
    fs::remove(host / "a/sub" / "one");
    writeFile(host / "a/sub" / "two", "2");
    writeFile(host / "a" / "file", "short");
    tavelinDone({"put", image, host / "a"});
    EXPECT_EQ(volume.list("a/sub"), (std::vector<std::string>{"one", "two"}));
    EXPECT_EQ(volume.cat("a/file"), "short");

    fs::create_directories(host / "out" / "a");
    writeFile(host / "out/a" / "file", "old and longer");
    writeFile(host / "out/a" / "mine", "mine");
    tavelinDone({"get", image, "a", host / "out"});
    EXPECT_EQ(readFile(host / "out/a" / "file"), "short");
    EXPECT_EQ(readFile(host / "out/a" / "mine"), "mine");

    // A file never takes the place of a directory, nor the other way round.
    fs::create_directories(host / "b" / "a" / "file");
    writeFile(host / "b/a" / "sub", "file");
    const ProcessResult put = tavelinRun({"put", image, host / "b/a"});
    EXPECT_EQ(put.status, kFailed);
    EXPECT_NE(put.err.find("2 problems"), std::string::npos) << put.err;
    EXPECT_EQ(volume.list("a/sub"), (std::vector<std::string>{"one", "two"}));
    EXPECT_EQ(volume.cat("a/file"), "short");
    const ProcessResult get = tavelinRun({"get", image, "a", host / "b"});
    EXPECT_EQ(get.status, kFailed);
    EXPECT_TRUE(fs::is_directory(host / "b/a" / "file"));
    EXPECT_EQ(readFile(host / "b/a" / "sub"), "file");
}

// The last of two paths is easily one that a shell's pattern has put there.
TEST(Copy, ATargetIsNeverAFileThatNobodyMeant) {
    const SampleVolume volume;
    const std::string image = volume.image();
    const TempDirectory host;
    const std::string a = host / "a.jpg";
    const std::string b = host / "b.jpg";
    writeFile(a, "first");
    writeFile(b, "second");
    tavelinDone({"put", image, a});
    tavelinDone({"put", image, "-", "taken"}, "taken");
    tavelinDone({"put", image, "-", "b.jpg"}, "on the volume");
    const std::string before = readFile(image);
    const auto here = [&](std::vector<std::string> words) {
        words.insert(words.begin(), {"env", "-C", host.path().string(), TAVELIN_PROGRAM});
        return run(words);
    };
    const struct {
        std::vector<std::string> words;
        std::string hint;
    } kRefused[] = {
        {{"put", image, a, b}, "-t /"},
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
    EXPECT_EQ(readFile(b), "second");
    EXPECT_FALSE(fs::exists(host / "taken"));

    EXPECT_TRUE(here({"put", "-t", "/", image, "a.jpg", "b.jpg"}).ok());
    EXPECT_EQ(volume.cat("b.jpg"), "second");
    EXPECT_TRUE(here({"put", "--replace", image, "a.jpg", "taken"}).ok());
    EXPECT_EQ(volume.cat("taken"), "first");
    EXPECT_TRUE(here({"put", image, "a.jpg", "/c.jpg"}).ok());
    EXPECT_TRUE(here({"get", "--replace", image, "taken", "b.jpg"}).ok());
    EXPECT_EQ(readFile(b), "first");
    EXPECT_TRUE(here({"get", image, "a.jpg", "./taken"}).ok());
    EXPECT_TRUE(here({"get", "-t", ".", image, "c.jpg"}).ok());
    EXPECT_EQ(readFile(host / "c.jpg"), "first");
}

TEST(Copy, LeavesOutWhatItCannotCopyAndGoesOn) {
    const SampleVolume volume;
    const std::string image = volume.image();
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
TEST(Copy, StreamsThatTheHostHasNoRoomForAreToldAndCanBeLeftOut) {
    const SampleVolume volume;
    const TempDirectory host;
    const std::string image = volume.image();
    tavelinDone({"put", image, "-", "file"}, "content");
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
TEST(Copy, GetEndsWhenTheCopyIsOnTheMedium) {
    const SampleVolume volume;
    const TempDirectory host;
    const std::string content = "what the disk has to have";
    tavelinDone({"put", volume.image(), "-", "file"}, content);
    writeFile(host / "disk", "");
    fs::resize_file(host / "disk", 16 << 20);
    fs::create_directory(host / "mounted");
    runOrThrow({"mkfs.ext4", "-q", host / "disk"});
    const auto onDisk = [&](const std::string& script) { // its mount ends with the script
        return run({"unshare", "-m", "sh", "-ec", "mount -o loop \"$1\" \"$2\"; " + script,
                    TAVELIN_PROGRAM, host / "disk", host / "mounted", volume.image(), content});
    };
    if (const ProcessResult mounted = onDisk(""); !mounted.ok()) {
        GTEST_SKIP() << "no disk to copy to: " << mounted.err;
    }
    const ProcessResult got = onDisk("\"$0\" get -q \"$3\" file \"$2\"; grep -qF \"$4\" \"$1\"");
    EXPECT_TRUE(got.ok()) << got.describe();
}

TEST(Copy, GetNeverLeavesItsTarget) {
    const SampleVolume volume;
    volume.leaveUnchecked();
    const TempDirectory host;
    const std::string image = volume.image();
    tavelinDone({"mkdir", image, "d"});
    tavelinDone({"put", image, "-", "d/123456escape"}, "escaped");
    tavelinDone({"put", image, "-", "d/12345sub"}, "escaped");
    tavelinDone({"mkdir", image, "d/qz"});
    tavelinDone({"put", image, "-", "d/qz/escape"}, "escaped");
    tavelinDone({"put", image, "-", "d/..\\escape"}, "ordinary");
    tavelinDone({"ln", "-s", image, host / "elsewhere", "d/link"});
    forgeName(image, "123456escape", "../../escape");
    forgeName(image, "12345sub", "/etc/sub");
    forgeName(image, "qz", "..");

    fs::create_directories(host / "elsewhere");
    fs::create_directories(host.path() / "out" / "inner");
    const fs::path target = host.path() / "out" / "inner";
    // A link that waits in the target, where a directory of the volume is to go.
    fs::create_directory_symlink(host / "elsewhere", target / "d2");
    tavelinDone({"mkdir", "-p", image, "d2"});
    tavelinDone({"put", image, "-", "d2/escape"}, "escaped");
    const ProcessResult get = tavelinRun({"get", image, "d", target});
    EXPECT_EQ(get.status, kFailed);
    EXPECT_NE(get.err.find("would lead out"), std::string::npos) << get.describe();
    expectRefusal(tavelinRun({"get", image, "d2", target}), kFailed, "something else");

    EXPECT_EQ(readFile(target / "d" / "..\\escape"), "ordinary");
    EXPECT_TRUE(fs::is_symlink(target / "d" / "link"));
    std::vector<std::string> outside;
    for (const auto& entry : fs::recursive_directory_iterator(host.path())) {
        const fs::path relative = fs::relative(entry.path(), target);
        if (entry.path().filename().string().ends_with("escape") &&
            relative.string().starts_with("..")) {
            outside.push_back(entry.path());
        }
    }
    EXPECT_EQ(outside, std::vector<std::string>());
    EXPECT_FALSE(fs::exists("/etc/sub"));
}

} // namespace
} // namespace tavelin::test
