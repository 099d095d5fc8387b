// tar: what comes out is what tar(1) reads, and what tar(1) writes goes in.
#include "tavelin_program.hpp"

#include "hosts/tree.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace tavelin::test {
namespace {

class Tar : public CommandTest {
  protected:
    // What tar(1) packs of empty files, under names that no file may have.
    std::string archiveOf(const std::vector<std::string>& names) const {
        std::vector<std::string> words{"tar", "-P", "-cf", "-", "-C", host.path()};
        for (const std::string& name : names) {
            const std::string file = "file" + std::to_string(words.size());
            writeFile(host / file, "");
            words.insert(words.begin() + 1, "--transform=s,^" + file + "$," + name + ",");
            words.push_back(file);
        }
        return runOrThrow(words);
    }
};

namespace fs = std::filesystem;

TEST_F(Tar, TreesGoOutAndIn) {
    const fs::path tree = host / "tree";
    makeTree(tree, 60);
    writeFile(tree / "sparse", "head");
    fs::resize_file(tree / "sparse", 40 << 20);
    fs::create_hard_link(tree / "sparse", tree / "sparse, too");
    const std::string archive = host / "archive.tar";
    runOrThrow({"tar", "--xattrs", "--format=pax", "-C", host.path(), "-cSf", archive, "tree"});

    // In, out again by the program, and out by tar(1).
    tavelinDone({"tar", "extract", image}, readFile(archive));
    tavelinDone({"tar", "extract", image}, readFile(archive)); // replaces, and has links already
    EXPECT_EQ(tavelinItems({"stat", image, "tree/sparse, too"}).at(0).at("links"), 2);
    tavelinDone({"get", image, "tree", host / "got"});
    EXPECT_EQ(firstDifference(readTree(tree, true), readTree(host / "got", true)), "");
    writeFile(archive, tavelinDone({"tar", "create", image, "tree"}));
    EXPECT_LT(fs::file_size(archive), 4u << 20);
    fs::create_directory(host / "out");
    runOrThrow({"tar", "--xattrs", "-C", host / "out", "-xf", archive});
    EXPECT_EQ(firstDifference(readTree(tree, true), readTree(host / "out" / "tree", true)), "");
    EXPECT_EQ(fs::hard_link_count(host / "out" / "tree" / "sparse"), 2u);
}

TEST_F(Tar, HostileAndBrokenArchivesDoNoHarm) {
    tavelinDone({"mkdir", "-p", image, "target", "outside"});
    tavelinDone({"ln", "-s", image, "/outside", "target/link"});
    const struct {
        std::string archive;
        std::string hint;
    } kTable[] = {
        {archiveOf({"../x"}), "leads out of the target"},
        {archiveOf({"link/x"}), "something else than a directory"},
        {runOrThrow({"tar", "-cf", "-", "-C", "/dev", "null"}), "devices"},
        {archiveOf({"cut"}).substr(0, 300), "format"},
        {"no archive", "format"},
    };
    for (const auto& row : kTable) {
        expectRefusal(tavelinRun({"tar", "extract", image, "target"}, row.archive), kFailed,
                      row.hint);
    }
    expectRefusal(tavelinRun({"tar", "extract", image, "none"}, archiveOf({"x"})), kFailed,
                  "mkdir -p");
    EXPECT_EQ(volume.list("outside").size() + volume.list("/").size(), 2u);
    EXPECT_EQ(volume.list("target"), std::vector<std::string>{"link"});
    // What comes after an entry that is refused is unpacked.
    EXPECT_EQ(tavelinRun({"tar", "extract", image, "target"}, archiveOf({"../x", "/y"})).status,
              kFailed);
    EXPECT_EQ(volume.list("target"), (std::vector<std::string>{"link", "y"}));
}

} // namespace
} // namespace tavelin::test
