// What single calls do on a mount: files without names, replacing, links, attributes, errors.
#include "hosts/fuse/served_volume.hpp"
#include "hosts/fuse/tree.hpp"
#include "support/run_process.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <limits>
#include <map>
#include <optional>
#include <sched.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace tavelin::test {
namespace {

namespace fs = std::filesystem;

class MountSemantics : public MountTest {
  protected:
    class Descriptor {
      public:
        Descriptor(const fs::path& path, int flags)
            : fd_(::open(path.c_str(), flags | O_CLOEXEC, 0666)) {
            EXPECT_NE(fd_, -1) << path << ": " << std::generic_category().message(errno);
        }
        ~Descriptor() { ::close(fd_); }
        Descriptor(const Descriptor&) = delete;
        Descriptor& operator=(const Descriptor&) = delete;
        operator int() const { return fd_; }

        std::string read(size_t most = 4096) const {
            std::string text(most, 0);
            const ssize_t got = ::pread(fd_, text.data(), most, 0);
            EXPECT_GE(got, 0) << std::generic_category().message(errno);
            return text.substr(0, static_cast<size_t>(std::max<ssize_t>(got, 0)));
        }

      private:
        int fd_;
    };

    std::vector<std::string> names(const std::string& directory = "") const {
        std::vector<std::string> found;
        for (const fs::directory_entry& entry : fs::directory_iterator(*this / directory)) {
            found.push_back(entry.path().filename());
        }
        std::sort(found.begin(), found.end());
        return found;
    }
    using Names = std::vector<std::string>;

    static struct stat statusOf(int fd) {
        struct stat status {};
        EXPECT_EQ(::fstat(fd, &status), 0) << std::generic_category().message(errno);
        return status;
    }
};

TEST_F(MountSemantics, RemovedFileLivesUntilItsLastClose) {
    writeFile(*this / "file", "before");
    {
        const Descriptor open(*this / "file", O_RDWR);
        ASSERT_EQ(::unlink(path("file").c_str()), 0);
        EXPECT_EQ(names(), Names{});
        EXPECT_EQ(errorOf(::access(path("file").c_str(), F_OK)), ENOENT);
        EXPECT_EQ(::pwrite(open, "after!", 6, 0), 6);
        ASSERT_EQ(::ftruncate(open, 1 << 20), 0);
        // New files, whose records must not be that of the one still open.
        for (int i = 0; i < 50; ++i) {
            writeFile(*this / ("new" + std::to_string(i)), std::string(2000, 'n'));
        }
        EXPECT_EQ(open.read(6), "after!");
        // The name is free again, also while the old file lives.
        writeFile(*this / "file", "second");
        EXPECT_EQ(open.read(6), "after!");
        EXPECT_EQ(readFile(*this / "file"), "second");
        struct stat status {};
        ASSERT_EQ(::fstat(open, &status), 0);
        EXPECT_EQ(status.st_nlink, 0u);
        EXPECT_EQ(status.st_size, 1 << 20);
        // Moved aside by now, and neither seen nor reached nor taken by a user's directory.
        EXPECT_EQ(errorOf(::access(path(".tavelin-removed").c_str(), F_OK)), ENOENT);
        EXPECT_EQ(errorOf(::mkdir(path(".tavelin-removed").c_str(), 0777)), EPERM);
        EXPECT_EQ(names().size(), 51u);
    }
    served_->unmount();
    EXPECT_EQ(volume_->list().size(), 51u) << "the orphan directory is gone";
    mount();
    EXPECT_EQ(readFile(*this / "file"), "second");
}

TEST_F(MountSemantics, DirectoryGoesAlthoughItsRemovedFilesAreOpen) {
    fs::create_directory(*this / "folder");
    writeFile(*this / "folder/a", "content of a");
    const Descriptor open(*this / "folder/a", O_RDONLY);
    ASSERT_EQ(::unlink(path("folder/a").c_str()), 0);
    ASSERT_EQ(errorOf(::rmdir(path("folder").c_str())), 0);
    EXPECT_EQ(open.read(), "content of a");

    // A directory that is somebody's working directory goes too, and is empty from then on.
    fs::create_directory(*this / "working");
    const Descriptor working(*this / "working", O_RDONLY | O_DIRECTORY);
    ASSERT_EQ(::rmdir(path("working").c_str()), 0);
    fs::create_directory(*this / "other");
    writeFile(*this / "other/file", "x");
    struct stat status {};
    EXPECT_EQ(::fstat(working, &status), 0);
    EXPECT_EQ(errorOf(::openat(working, "file", O_RDONLY)), ENOENT);
    EXPECT_EQ(errorOf(::openat(working, "new", O_RDWR | O_CREAT, 0666)), ENOENT);
    EXPECT_EQ(names(), Names{"other"});
}

TEST_F(MountSemantics, DescriptorsOfWhatIsGoneChangeNobodyElse) {
    fs::create_directory(*this / "folder");
    std::optional<Descriptor> gone(std::in_place, *this / "folder", O_RDONLY | O_DIRECTORY);
    const ino_t ino = statusOf(*gone).st_ino;
    ASSERT_EQ(::rmdir(path("folder").c_str()), 0);
    std::string reused; // of the directory's record
    struct stat before {};
    for (int i = 0; i < 500 && before.st_ino != ino; ++i) {
        reused = "file" + std::to_string(i);
        writeFile(*this / reused, "content");
        ASSERT_EQ(::setxattr(path(reused).c_str(), "user.mine", "x", 1, 0), 0);
        ASSERT_EQ(::stat(path(reused).c_str(), &before), 0);
    }
    ASSERT_EQ(before.st_ino, ino);
    char value[16];
    const timespec times[2] = {{1, 0}, {1, 0}};
    EXPECT_EQ(errorOf(::futimens(*gone, times)), ESTALE);
    EXPECT_EQ(errorOf(::fsetxattr(*gone, "user.x", "x", 1, 0)), ESTALE);
    EXPECT_EQ(errorOf(::fremovexattr(*gone, "user.mine")), ESTALE);
    EXPECT_EQ(errorOf(static_cast<int>(::fgetxattr(*gone, "user.mine", value, 16))), ESTALE);
    EXPECT_EQ(errorOf(static_cast<int>(::flistxattr(*gone, value, 16))), ESTALE);
    gone.reset();
    mount();
    struct stat after {};
    ASSERT_EQ(::stat(path(reused).c_str(), &after), 0);
    EXPECT_EQ(after.st_mtim.tv_sec, before.st_mtim.tv_sec);
    EXPECT_EQ(::getxattr(path(reused).c_str(), "user.mine", value, sizeof value), 1);
}

TEST_F(MountSemantics, WhatIsOpenWithoutANameHasItsOwnAttributes) {
    writeFile(*this / "file", "content");
    fs::create_symlink("target", *this / "link");
    const Descriptor file(*this / "file", O_RDWR);
    const Descriptor link(*this / "link", O_PATH | O_NOFOLLOW);
    ASSERT_EQ(::unlink(path("file").c_str()), 0);
    ASSERT_EQ(::unlink(path("link").c_str()), 0);
    for (int i = 0; i < 50; ++i) {
        fs::create_directory(*this / std::to_string(i));
    }
    ASSERT_EQ(::ftruncate(file, 3), 0);
    EXPECT_EQ(statusOf(file).st_nlink, 0u);
    EXPECT_EQ(statusOf(file).st_size, 3);
    EXPECT_EQ(statusOf(link).st_mode & S_IFMT, S_IFLNK + 0u);
    EXPECT_EQ(statusOf(link).st_nlink, 0u);
    char target[16];
    EXPECT_EQ(::readlinkat(link, "", target, sizeof target), 6);
}

TEST_F(MountSemantics, LinksAreAsLongAsTheirTarget) {
    const std::string target = "Übergrößen/日本語/𝄞.txt";
    fs::create_symlink(target, *this / "link");
    for (int i = 0; i < 2; ++i) {
        struct stat status {};
        ASSERT_EQ(::lstat(path("link").c_str(), &status), 0);
        EXPECT_EQ(status.st_size, static_cast<off_t>(target.size()));
        EXPECT_EQ(fs::read_symlink(*this / "link"), target);
        mount();
        EXPECT_EQ(names(), Names{"link"}); // brings the attributes with it
    }
}

TEST_F(MountSemantics, RenameOverAnOpenFileKeepsBoth) {
    writeFile(*this / "old", std::string(100'000, 'o'));
    writeFile(*this / "new", "new content");
    {
        const Descriptor open(*this / "old", O_RDONLY);
        ASSERT_EQ(::rename(path("new").c_str(), path("old").c_str()), 0);
        EXPECT_EQ(readFile(*this / "old"), "new content");
        EXPECT_EQ(open.read(5), "ooooo");
    }
    EXPECT_EQ(names(), Names{"old"});
    EXPECT_EQ(errorOf(::access(path("new").c_str(), F_OK)), ENOENT);
    expectToLast(*volume_, served_);
}

TEST_F(MountSemantics, RenameFollowsTheRules) {
    fs::create_directory(*this / "folder");
    fs::create_directory(*this / "empty");
    writeFile(*this / "folder/inside", "1");
    writeFile(*this / "file", "2");
    const auto rename = [&](const char* from, const char* to, unsigned flags = 0) {
        return errorOf(
            ::renameat2(AT_FDCWD, path(from).c_str(), AT_FDCWD, path(to).c_str(), flags));
    };
    EXPECT_EQ(rename("file", "empty"), EISDIR);
    EXPECT_EQ(rename("folder", "file"), ENOTDIR);
    EXPECT_EQ(rename("empty", "folder"), ENOTEMPTY);
    EXPECT_EQ(rename("folder", "folder/below"), EINVAL);
    EXPECT_EQ(rename("missing", "file"), ENOENT);
    EXPECT_EQ(rename("file", "folder/inside", RENAME_NOREPLACE), EEXIST);
    EXPECT_EQ(rename("file", "folder/inside", RENAME_EXCHANGE), EINVAL);
    EXPECT_EQ(rename("file", "FILE"), 0) << "only the case changes";
    EXPECT_EQ(names(), (Names{"FILE", "empty", "folder"}));
    EXPECT_EQ(rename("FILE", "folder/moved"), 0);
    EXPECT_EQ(rename("folder", "empty"), 0) << "an empty directory is replaced";
    EXPECT_EQ(names("empty"), (Names{"inside", "moved"}));
    EXPECT_EQ(readFile(*this / "empty/moved"), "2");
}

// The kernel keeps what it was told; nothing it keeps may be wrong after a change.
TEST_F(MountSemantics, NamesThatDifferInCaseAreDifferentNames) {
    EXPECT_FALSE(fs::exists(*this / "Name"));
    EXPECT_FALSE(fs::exists(*this / "NAME"));
    writeFile(*this / "name", "lower");
    EXPECT_FALSE(fs::exists(*this / "Name"));
    writeFile(*this / "Name", "mixed");
    EXPECT_EQ(readFile(*this / "name"), "lower");
    fs::rename(*this / "name", *this / "NAME");
    EXPECT_FALSE(fs::exists(*this / "name"));
    EXPECT_EQ(readFile(*this / "NAME"), "lower");
    EXPECT_EQ(readFile(*this / "Name"), "mixed");
    fs::remove(*this / "Name");
    EXPECT_FALSE(fs::exists(*this / "Name"));
    EXPECT_TRUE(fs::exists(*this / "NAME"));
}

TEST_F(MountSemantics, ShortAliasesComeAndGoWithTheirFile) {
    changeByDriver(addAliased);
    EXPECT_EQ(names(), Names{"a long name.txt"});
    EXPECT_EQ(readFile(*this / "ALONGN~1.TXT"), "content");
    // Its record counts two names, but it has one to lose.
    const Descriptor open(*this / "a long name.txt", O_RDONLY);
    ASSERT_EQ(::unlink(path("a long name.txt").c_str()), 0);
    EXPECT_FALSE(fs::exists(*this / "ALONGN~1.TXT"));
    for (int i = 0; i < 20; ++i) {
        writeFile(*this / ("new" + std::to_string(i)), "other");
    }
    EXPECT_EQ(open.read(), "content");
}

// The kernel knows nothing of the two names being one: it keeps what it was told of the long name.
TEST_F(MountSemantics, WhatHappensToAShortAliasHappensToTheLongName) {
    const auto awaitItsEnd = [&](const std::string& name) {
        // The kernel is told once the call has returned. A name that it does not know is asked for.
        for (int i = 0; i < 100'000 && ::access(path(name).c_str(), F_OK) == 0; ++i) {
            ::sched_yield();
        }
        EXPECT_FALSE(fs::exists(*this / name));
    };
    const std::string lng = "a long name.txt", alias = "ALONGN~1.TXT";
    for (const std::string change : {"remove", "rename", "replace"}) {
        SCOPED_TRACE(change);
        mountFresh(64 * kMiB);
        changeByDriver(addAliased);
        EXPECT_EQ(readFile(*this / lng), "content");
        writeFile(*this / "other", "other");
        if (change == "remove") {
            fs::remove(*this / alias);
        } else if (change == "rename") {
            fs::rename(*this / alias, *this / "renamed");
        } else {
            fs::rename(*this / "other", *this / alias);
        }
        awaitItsEnd(lng);
        writeFile(*this / lng, "new");
        EXPECT_EQ(readFile(*this / lng), "new");
        if (change == "rename") {
            EXPECT_EQ(readFile(*this / "renamed"), "content");
        } else if (change == "replace") {
            EXPECT_EQ(readFile(*this / alias), "other");
        }
        expectToLast(*volume_, served_);
    }
}

TEST_F(MountSemantics, OtherNamesOfAFileOutliveOne) {
    changeByDriver([](const TempDirectory& directory) {
        writeFile(directory / "first", "shared");
        fs::create_hard_link(directory / "first", directory / "second");
        fs::create_hard_link(directory / "first", directory / "third");
    });
    EXPECT_EQ(fs::hard_link_count(*this / "first"), 3u);
    const Descriptor open(*this / "first", O_RDWR);
    fs::remove(*this / "first");
    EXPECT_EQ(::pwrite(open, "SHARED", 6, 0), 6);
    EXPECT_EQ(readFile(*this / "second"), "SHARED");
    fs::rename(*this / "second", *this / "third"); // the same file: nothing happens
    writeFile(*this / "other", "other");
    fs::rename(*this / "other", *this / "second");
    EXPECT_EQ(readFile(*this / "second"), "other");
    EXPECT_EQ(readFile(*this / "third"), "SHARED");
    EXPECT_EQ(fs::hard_link_count(*this / "third"), 1u);
    EXPECT_EQ(names(), (Names{"second", "third"}));
}

TEST_F(MountSemantics, HardLinksAreNamesOfOneFile) {
    writeFile(*this / "first", "shared");
    fs::create_directory(*this / "folder");
    const auto link = [this](const char* from, const char* to) {
        return errorOf(::link(path(from).c_str(), path(to).c_str()));
    };
    EXPECT_EQ(link("first", "folder/second"), 0);
    EXPECT_EQ(fs::hard_link_count(*this / "first"), 2u);
    EXPECT_TRUE(fs::equivalent(*this / "first", *this / "folder/second"));
    EXPECT_EQ(names("folder"), Names{"second"});
    EXPECT_EQ(link("first", "folder/second"), EEXIST);
    EXPECT_EQ(link("folder", "other"), EPERM);
    EXPECT_EQ(link("missing", "other"), ENOENT);
    {
        // Locking by links, as mailers do, and a name that is made while its last owner is open.
        const Descriptor open(*this / "first", O_RDWR);
        fs::remove(*this / "first");
        EXPECT_EQ(statusOf(open).st_nlink, 1u);
        EXPECT_EQ(link("folder/second", "first"), 0);
        EXPECT_EQ(::pwrite(open, "SHARED", 6, 0), 6);
        fs::remove(*this / "first");
        fs::remove(*this / "folder/second");
        EXPECT_EQ(errorOf(::linkat(open, "", AT_FDCWD, path("again").c_str(), AT_EMPTY_PATH)),
                  ENOENT);
        EXPECT_EQ(open.read(), "SHARED");
        writeFile(*this / "new", "new");
        EXPECT_EQ(link("new", "first"), 0) << "the name is free";
    }
    EXPECT_EQ(readFile(*this / "first"), "new");
    expectToLast(*volume_, served_);
    EXPECT_EQ(fs::hard_link_count(*this / "new"), 2u);
}

TEST_F(MountSemantics, ExtendedAttributesAreNamedStreams) {
    writeFile(*this / "file", "content");
    const std::string file = path("file");
    ASSERT_EQ(::setxattr(file.c_str(), "user.author", "me", 2, XATTR_CREATE), 0);
    EXPECT_EQ(errorOf(::setxattr(file.c_str(), "user.author", "x", 1, XATTR_CREATE)), EEXIST);
    EXPECT_EQ(errorOf(::setxattr(file.c_str(), "user.none", "x", 1, XATTR_REPLACE)), ENODATA);
    EXPECT_EQ(errorOf(::setxattr(file.c_str(), "trusted.x", "x", 1, 0)), EOPNOTSUPP);
    ASSERT_EQ(::setxattr(file.c_str(), "user.empty", "", 0, 0), 0);
    char value[16];
    EXPECT_EQ(::getxattr(file.c_str(), "user.author", value, sizeof value), 2);
    EXPECT_EQ(::getxattr(file.c_str(), "user.author", nullptr, 0), 2);
    EXPECT_EQ(errorOf(static_cast<int>(::getxattr(file.c_str(), "user.author", value, 1))), ERANGE);
    EXPECT_EQ(::getxattr(file.c_str(), "user.empty", value, sizeof value), 0);
    EXPECT_EQ(errorOf(static_cast<int>(::getxattr(file.c_str(), "user.none", value, 16))), ENODATA);
    char list[256];
    const ssize_t listed = ::listxattr(file.c_str(), list, sizeof list);
    ASSERT_GT(listed, 0);
    const std::string all(list, static_cast<size_t>(listed));
    EXPECT_NE(all.find("user.author"), std::string::npos);
    EXPECT_NE(all.find("user.empty"), std::string::npos);
    ASSERT_EQ(::removexattr(file.c_str(), "user.empty"), 0);
    served_->unmount();
    EXPECT_EQ(volume_->cat("file", "author"), "me");
    EXPECT_EQ(volume_->cat("file"), "content");
    mount();
}

TEST_F(MountSemantics, AttributesAndTimesStayWhatTheyWereSetTo) {
    writeFile(*this / "file", "content");
    const timespec times[2] = {{981173106, 123456700}, {1000000000, 987654300}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path("file").c_str(), times, 0), 0);
    ASSERT_EQ(::chmod(path("file").c_str(), 0600), 0) << "accepted, although nothing keeps it";
    ASSERT_EQ(::chown(path("file").c_str(), 1000, 1000), 0);
    const auto check = [&] {
        struct stat status {};
        ASSERT_EQ(::stat(path("file").c_str(), &status), 0);
        EXPECT_EQ(status.st_mtim.tv_sec, times[1].tv_sec);
        EXPECT_EQ(status.st_mtim.tv_nsec, times[1].tv_nsec);
        EXPECT_EQ(status.st_atim.tv_sec, times[0].tv_sec);
        EXPECT_EQ(status.st_mode, S_IFREG | 0777u);
        EXPECT_EQ(status.st_uid, ::getuid());
        EXPECT_EQ(status.st_size, 7);
    };
    check();
    mount();
    check();
    // A time before the first that NTFS has becomes that, and none in the far future.
    const timespec ancient[2] = {{-20'000'000'000, 0}, {-20'000'000'000, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path("file").c_str(), ancient, 0), 0);
    struct stat clamped {};
    ASSERT_EQ(::stat(path("file").c_str(), &clamped), 0);
    EXPECT_EQ(clamped.st_mtim.tv_sec, -11'644'473'600);
    // Writing and truncating move the time on, also to the size that it has; reading does not.
    const std::time_t before = std::time(nullptr) - 2;
    for (const int size : {3, 0, 0}) {
        ASSERT_EQ(::utimensat(AT_FDCWD, path("file").c_str(), times, 0), 0);
        if (size != 0) {
            EXPECT_EQ(::truncate(path("file").c_str(), size), 0);
        } else {
            const Descriptor truncated(*this / "file", O_WRONLY | O_TRUNC);
        }
        struct stat status {};
        ASSERT_EQ(::stat(path("file").c_str(), &status), 0);
        EXPECT_GE(status.st_mtim.tv_sec, before);
        EXPECT_GE(status.st_ctim.tv_sec, before);
        EXPECT_EQ(status.st_size, size);
    }
}

TEST_F(MountSemantics, WhatIsNotOfferedSaysSo) {
    writeFile(*this / "file", "content");
    EXPECT_EQ(errorOf(::mkfifo(path("pipe").c_str(), 0666)), EOPNOTSUPP);
    EXPECT_EQ(errorOf(::mknod(path("device").c_str(), S_IFCHR | 0666, 0)), EOPNOTSUPP);
    EXPECT_EQ(errorOf(::mknod(path("plain").c_str(), S_IFREG | 0666, 0)), 0);
    const Descriptor file(*this / "file", O_RDWR);
    EXPECT_EQ(errorOf(::fallocate(file, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, 4)),
              EOPNOTSUPP);
    const std::string tooLong(256, 'x');
    EXPECT_EQ(errorOf(::mkdir(path(tooLong).c_str(), 0777)), ENAMETOOLONG);
    EXPECT_EQ(errorOf(::rmdir(path("file").c_str())), ENOTDIR);
    EXPECT_EQ(errorOf(::mkdir(path("file").c_str(), 0777)), EEXIST);
    EXPECT_EQ(errorOf(::open(path("file/x").c_str(), O_RDONLY)), ENOTDIR);
    const off_t largest = std::numeric_limits<off_t>::max();
    EXPECT_EQ(errorOf(static_cast<int>(::pwrite(file, "x", 1, largest - 1))), EFBIG);
    EXPECT_EQ(readFile(*this / "file"), "content");
}

TEST_F(MountSemantics, WindowsNamesAndReadOnlyAreHonoured) {
    mount("windows_names");
    EXPECT_EQ(errorOf(::mkdir(path("aux").c_str(), 0777)), EINVAL);
    EXPECT_EQ(errorOf(::mkdir(path("a:b").c_str(), 0777)), EINVAL);
    writeFile(*this / "plain", "content");
    const std::string before = (served_->unmount(), readFile(volume_->image()));
    mount("ro");
    EXPECT_EQ(readFile(*this / "plain"), "content");
    EXPECT_EQ(errorOf(::mkdir(path("folder").c_str(), 0777)), EROFS);
    EXPECT_EQ(errorOf(::unlink(path("plain").c_str())), EROFS);
    EXPECT_EQ(errorOf(::open(path("plain").c_str(), O_RDWR)), EROFS);
    EXPECT_EQ(served_->unmount(), 0);
    EXPECT_TRUE(readFile(volume_->image()) == before) << "a read-only mount changed the image";
    served_.reset();
}

} // namespace
} // namespace tavelin::test
