// sync: one tree becomes like another, and nothing is written where it already is.
#include "tavelin_program.hpp"

#include "hosts/tree.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <map>
#include <sys/xattr.h>

namespace tavelin::test {
namespace {

namespace fs = std::filesystem;
using Actions = std::map<std::string, std::string>; // what was done, by path

Actions actions(std::vector<std::string> words) {
    words.insert(words.begin(), "sync");
    return columnOf(tavelinItems(std::move(words)), "path", "action");
}

constexpr std::timespec kFirst{1'000'000, 123456700};
constexpr std::timespec kLater{2'000'000, 123456700};

using Sync = CommandTest;

// In both directions, with what a tree can hold.
TEST_F(Sync, WhatIsAlikeIsLeftAlone) {
    makeTree(host / "tree", 100);
    fs::create_symlink("/from/the/root", host / "tree" / "absolute");
    EXPECT_GT(actions({"put", image, host / "tree", "copy"}).size(), 100u);
    EXPECT_GT(actions({"get", image, "copy", host / "back"}).size(), 100u);
    tavelinDone({"diff", image, "copy", host / "tree"});
    EXPECT_EQ(firstDifference(readTree(host / "tree", true), readTree(host / "back", true)), "");

    const std::string before = readFile(image);
    const auto written = fs::last_write_time(image);
    for (const char* extra : {"-v", "--checksum", "--delete"}) {
        EXPECT_EQ(actions({extra, "put", image, host / "tree", "copy"}), Actions{}) << extra;
        EXPECT_EQ(actions({extra, "get", image, "copy", host / "back"}), Actions{}) << extra;
    }
    EXPECT_EQ(fs::last_write_time(image), written);
    EXPECT_EQ(readFile(image), before);
}

class SyncChanges : public CommandTest {
  protected:
    SyncChanges() {
        fs::create_directories(tree / "sub" / "inner");
        for (const char* name :
             {"same", "grown", "touched", "gone", "sub/inner/deep", "keep.tmp"}) {
            writeFile(tree / name, "content");
            setModified(tree / name, kFirst);
        }
        for (const char* name : {"sub/inner", "sub"}) {
            setModified(tree / name, kLater);
        }
        tavelinDone({"sync", "put", image, tree, "/"});
    }

    const fs::path tree = host / "tree";
};

TEST_F(SyncChanges, OfTheHostReachTheVolume) {
    writeFile(tree / "grown", "content and more");
    setModified(tree / "touched", kLater);
    fs::remove(tree / "gone");
    fs::remove(tree / "keep.tmp");
    writeFile(tree / "other.tmp", "");
    writeFile(tree / "sub" / "new", "new");
    tavelinDone({"mkdir", image, "System Volume Information"});
    ASSERT_EQ(setxattr((tree / "same").c_str(), "user.author", "Ada", 3, 0), 0);
    ASSERT_EQ(setxattr((tree / "sub" / "inner").c_str(), "user.author", "Grace", 5, 0), 0);
    setModified(tree / "sub", kLater);
    const Actions expected{{"/grown", "replace"}, {"/touched", "replace"},
                           {"/gone", "remove"},   {"/sub/new", "create"},
                           {"/same", "replace"},  {"/sub/inner", "update"}};
    const std::vector<std::string> words{"--delete", "--exclude", "*.tmp", "put", image, tree, "/"};

    auto dry = words;
    dry.insert(dry.begin(), "-n");
    const std::string before = readFile(image);
    EXPECT_EQ(actions(dry), expected);
    EXPECT_EQ(readFile(image), before);
    EXPECT_EQ(actions(words), expected);
    EXPECT_EQ(actions(words), Actions{});
    EXPECT_EQ(volume.cat("grown"), "content and more");
    EXPECT_EQ(volume.cat("keep.tmp"), "content"); // what is excluded is not removed either
    EXPECT_EQ(tavelinRun({"stat", image, "System Volume Information"}).status, 0);
    EXPECT_EQ(tavelinRun({"stat", image, "other.tmp"}).status, kFailed);
    EXPECT_EQ(volume.cat("same", "author"), "Ada");
    // With the contents compared a new time is all that is written.
    setModified(tree / "same", kLater);
    EXPECT_EQ(actions({"--checksum", "put", image, tree, "/"}),
              (Actions{{"/same", "update"}, {"/other.tmp", "create"}}));
}

TEST_F(SyncChanges, OfTheVolumeReachTheHost) {
    tavelinDone({"put", "--replace", image, "-", "grown"}, "more");
    tavelinDone({"rm", image, "gone"});
    tavelinDone({"mkdir", "-p", image, "new/inside"});
    put({{"new/inside/file", "new"}});
    // A run that was killed has left this; a process of this number cannot be.
    writeFile(tree / ".tavelin-part-2147483647-3", "half");
    writeFile(tree / ".tavelin-part-of-me", "a file of the user");
    EXPECT_EQ(actions({"--delete", "get", image, "/", tree}),
              (Actions{{"/grown", "replace"},
                       {"/gone", "remove"},
                       {"/.tavelin-part-of-me", "remove"},
                       {"/new", "create"},
                       {"/new/inside", "create"},
                       {"/new/inside/file", "create"}}));
    EXPECT_EQ(readFile(tree / "new" / "inside" / "file"), "new");
    EXPECT_FALSE(fs::exists(tree / ".tavelin-part-2147483647-3"));
    EXPECT_EQ(actions({"--delete", "get", image, "/", tree}), Actions{});
}

// What cannot be made alike is told, and nothing is lost for it.
TEST_F(SyncChanges, ThatCannotBeMadeAreProblems) {
    // Only the case of a name.
    fs::rename(tree / "touched", tree / "Touched");
    EXPECT_EQ(actions({"--delete", "put", image, tree, "/"}),
              (Actions{{"/Touched", "create"}, {"/touched", "remove"}}));
    EXPECT_EQ(actions({"--delete", "put", image, tree, "/"}), Actions{});
    EXPECT_EQ(volume.cat("Touched"), "content");
    // A directory where a file was.
    fs::remove(tree / "grown");
    fs::create_directory(tree / "grown");
    writeFile(tree / "grown" / "inside", "x");
    expectRefusal(tavelinRun({"sync", "put", image, tree, "/"}), kFailed, "--delete replaces it");
    EXPECT_EQ(volume.cat("grown"), "content");
    tavelinDone({"sync", "--delete", "put", image, tree, "/"});
    EXPECT_EQ(volume.cat("grown/inside"), "x");
    // The image in the tree that becomes like the volume.
    const fs::path inside = tree / "inside.img";
    fs::copy_file(image, inside);
    expectRefusal(tavelinRun({"sync", "--delete", "get", inside, "/", tree}), kFailed, "image");
    EXPECT_TRUE(fs::exists(inside));
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{"sync", "put", image, "/nowhere", "/"},
          {"sync", "get", image, "nowhere", host.path()},
          {"sync", "put", image, tree, "no/where"},
          {"sync", "get", image, "same", host.path()}}) {
        EXPECT_EQ(tavelinRun(words).status, kFailed) << words[2] << " " << words[3];
    }
}

} // namespace
} // namespace tavelin::test
