// Mounts where case does not count: each request in another spelling than the one that is stored.
#include "hosts/fuse/served_volume.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <functional>
#include <sys/stat.h>
#include <unistd.h>

namespace tavelin::test {
namespace {

namespace fs = std::filesystem;

struct MountCase : MountTest {
    MountCase() : MountTest(64 * kMiB, "ignore_case") {}

    // As ls(1): what the kernel has learned from a listing must not outlive a change either.
    Names listed(const std::string& directory = "") const {
        Names found = names(directory);
        for (const std::string& name : found) {
            EXPECT_GT(statusOf(directory + "/" + name).st_nlink, 0u);
        }
        return found;
    }
    std::string at(const std::string& name) const { return path("d/" + name); }
    // System calls on names in that directory.
    std::function<int()> opened(const char* name, int flags) const {
        return [this, name, flags] {
            const int fd = ::open(at(name).c_str(), flags, 0666);
            return fd == -1 ? -1 : ::close(fd);
        };
    }
    std::function<int()> renamed(const char* from, const char* to, unsigned flags = 0) const {
        return [this, from, to, flags] {
            return ::renameat2(AT_FDCWD, at(from).c_str(), AT_FDCWD, at(to).c_str(), flags);
        };
    }
    int errorOfStat(const std::string& name) const {
        struct stat status {};
        return errorOf(::stat(path(name).c_str(), &status));
    }
};

TEST_F(MountCase, NamesAreFoundInAnyCaseAndShownAsTheyAreStored) {
    struct Case {
        const char* what;
        std::function<int()> call; // answers -1 with errno, as system calls do
        int error;
        Names left; // in the directory
        const char* gone = nullptr;
    };
    const Names all{"Folder", "Readme.TXT", "plain", "\u00c9t\u00e9"};
    const auto without = [&](const char* name, const char* instead = nullptr) {
        Names left = all;
        std::erase(left, name);
        if (instead != nullptr) {
            left.emplace_back(instead);
            std::ranges::sort(left);
        }
        return left;
    };
    const std::vector<Case> cases{
        {"open", opened("README.txt", O_RDWR), 0, all},
        {"in another alphabet", opened("\u00e9T\u00c9", O_RDWR), 0, all},
        {"on the way", opened("FOLDER/inner", O_RDONLY), 0, all},
        {"create", opened("README.txt", O_RDWR | O_CREAT), 0, all},
        {"create anew", opened("README.txt", O_RDWR | O_CREAT | O_EXCL), EEXIST, all},
        {"mkdir", [&] { return ::mkdir(at("FOLDER").c_str(), 0777); }, EEXIST, all},
        {"symlink", [&] { return ::symlink("x", at("folder").c_str()); }, EEXIST, all},
        {"link", [&] { return ::link(at("PLAIN").c_str(), at("folder").c_str()); }, EEXIST, all},
        {"unlink", [&] { return ::unlink(at("README.txt").c_str()); }, 0, without("Readme.TXT"),
         "Readme.TXT"},
        {"rmdir",
         [&] { return ::unlink(at("FOLDER/INNER").c_str()) | ::rmdir(at("FOLDER").c_str()); }, 0,
         without("Folder"), "Folder"},
        {"rename", renamed("PLAIN", "moved"), 0, without("plain", "moved"), "plain"},
        {"rename to what is there", renamed("PLAIN", "README.txt", RENAME_NOREPLACE), EEXIST, all},
        {"rename over it", renamed("PLAIN", "README.txt"), 0, without("plain"), "plain"},
        {"exchange", renamed("PLAIN", "FOLDER", RENAME_EXCHANGE), 0, all},
        // The kernel sees one file by two names and does nothing, so it takes a third name.
        {"rename the case", renamed("PLAIN", "Plain"), 0, all},
        {"rename by a third name",
         [&] { return renamed("plain", "third")() | renamed("THIRD", "Plain")(); }, 0,
         without("plain", "Plain")},
        {"a name that was missing",
         [&] {
             EXPECT_EQ(errorOfStat("d/more"), ENOENT);
             return opened("MORE", O_RDWR | O_CREAT)() | opened("more", O_RDWR)();
         },
         0, without("", "MORE")},
    };
    for (const auto& [what, call, error, left, gone] : cases) {
        fs::create_directories(*this / "d/Folder/Inner/..");
        fs::remove(*this / "d/Folder/Inner");
        for (const char* name : {"Readme.TXT", "plain", "\u00c9t\u00e9", "Folder/Inner"}) {
            writeFile(at(name), name);
        }
        ASSERT_EQ(listed("d"), all) << what;
        EXPECT_EQ(errorOf(call()), error) << what;
        EXPECT_EQ(listed("d"), left) << what;
        if (gone != nullptr) {
            EXPECT_EQ(errorOfStat(std::string("d/") + gone), ENOENT) << what;
        }
        fs::remove_all(*this / "D");
    }
    expectToLast(*volume_, served_);
}

// The directory for removed files that are still open has its name in no spelling.
TEST_F(MountCase, TheHostsOwnNameIsHiddenInAnyCase) {
    writeFile(*this / "removed", "content");
    const Descriptor open(*this / "removed", O_RDWR);
    fs::remove(*this / "REMOVED");
    ASSERT_EQ(::fsync(open), 0); // moves it there
    EXPECT_EQ(errorOfStat(".Tavelin-Removed"), ENOENT);
    EXPECT_EQ(errorOf(::mkdir(path(".TAVELIN-REMOVED").c_str(), 0777)), EPERM);
    EXPECT_EQ(open.read(), "content");
    EXPECT_EQ(names(), Names{});
}

} // namespace
} // namespace tavelin::test
