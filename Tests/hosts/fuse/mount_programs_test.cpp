// Real programs on a mount, and what they leave behind.
#include "hosts/fuse/served_volume.hpp"
#include "hosts/tree.hpp"
#include "support/run_process.hpp"

#include <gtest/gtest.h>

namespace tavelin::test {
namespace {

namespace fs = std::filesystem;

class MountPrograms : public MountTest {
  protected:
    MountPrograms() : MountTest(384 * kMiB) {}

    TempDirectory outside_;
};

TEST_F(MountPrograms, CopiesComeBackAsTheyWere) {
    const fs::path source = outside_ / "source";
    makeTree(source, 2500);
    const Tree expected = readTree(source);

    runOrThrow({"cp", "-a", source, path("by cp")});
    runOrThrow({"rsync", "-aX", "--checksum", source.string() + "/", path("by rsync")});
    EXPECT_EQ(firstDifference(expected, readTree(*this / "by cp")), "");
    EXPECT_EQ(firstDifference(expected, readTree(*this / "by rsync")), "");
    // Nothing is left to transfer but permissions, which NTFS does not keep.
    EXPECT_EQ(runOrThrow({"rsync", "-rltX", "--checksum", "--itemize-changes",
                          source.string() + "/", path("by rsync")}),
              "");

    mount();
    runOrThrow({"cp", "-a", path("by cp"), outside_ / "back by cp"});
    runOrThrow({"rsync", "-aX", "--checksum", path("by rsync") + "/", outside_ / "back by rsync"});
    EXPECT_EQ(firstDifference(expected, readTree(outside_ / "back by cp")), "");
    EXPECT_EQ(firstDifference(expected, readTree(outside_ / "back by rsync")), "");
    expectToLast(*volume_, served_);
}

TEST_F(MountPrograms, GitKeepsARepository) {
    const auto git = [](const std::string& directory, std::vector<std::string> words) {
        words.insert(words.begin(), {"git", "-C", directory, "-c", "user.name=T", "-c",
                                     "user.email=t@example.org", "-c", "safe.directory=*"});
        return runOrThrow(words);
    };
    const std::string origin = outside_ / "origin";
    makeTree(origin, 600, 3);
    runOrThrow({"git", "init", "-q", origin});
    git(origin, {"add", "-A"});
    git(origin, {"commit", "-qm", "Start"});

    const std::string clone = path("clone");
    runOrThrow({"git", "clone", "-q", "--no-hardlinks", origin, clone});
    EXPECT_EQ(git(clone, {"status", "--porcelain"}), "");
    for (int i = 0; i < 5; ++i) {
        writeFile(clone + "/new" + std::to_string(i),
                  std::string(5000, static_cast<char>('a' + i)));
        git(clone, {"add", "-A"});
        git(clone, {"commit", "-qm", "Change"});
    }
    git(clone, {"gc", "-q", "--prune=now"});
    git(clone, {"fsck", "--strict"});
    const std::string head = git(clone, {"rev-parse", "HEAD"});

    expectToLast(*volume_, served_);
    const std::string again = (*this / "clone").string();
    git(again, {"fsck", "--strict"});
    EXPECT_EQ(git(again, {"rev-parse", "HEAD"}), head);
    EXPECT_EQ(git(again, {"status", "--porcelain"}), "");
}

} // namespace
} // namespace tavelin::test
