// What single calls do on a mount: files without names, replacing, links, attributes, errors.
#include "hosts/fuse/served_volume.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <limits>
#include <optional>
#include <sched.h>
#include <string_view>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace tavelin::test {
namespace {

namespace fs = std::filesystem;

using MountSemantics = MountTest;

TEST_F(MountSemantics, RemovedFilesAndLinksLiveUntilTheirLastClose) {
    writeFile(*this / "file", "before");
    fs::create_symlink("target", *this / "link");
    {
        const Descriptor open(*this / "file", O_RDWR);
        const Descriptor link(*this / "link", O_PATH | O_NOFOLLOW);
        fs::remove(*this / "file");
        fs::remove(*this / "link");
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
        EXPECT_EQ(open.status().st_nlink, 0u);
        EXPECT_EQ(open.status().st_size, 1 << 20);
        EXPECT_EQ(link.status().st_mode & S_IFMT, S_IFLNK + 0u);
        EXPECT_EQ(link.status().st_nlink, 0u);
        char target[16];
        EXPECT_EQ(::readlinkat(link, "", target, sizeof target), 6);
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
    fs::remove(*this / "folder/a");
    fs::remove(*this / "folder");
    EXPECT_EQ(open.read(), "content of a");

    // A directory that is somebody's working directory goes too, and is empty from then on.
    fs::create_directory(*this / "working");
    const Descriptor working(*this / "working", O_RDONLY | O_DIRECTORY);
    fs::remove(*this / "working");
    fs::create_directory(*this / "other");
    writeFile(*this / "other/file", "x");
    EXPECT_EQ(working.status().st_mode & S_IFMT, S_IFDIR + 0u);
    EXPECT_EQ(errorOf(::openat(working, "file", O_RDONLY)), ENOENT);
    EXPECT_EQ(errorOf(::openat(working, "new", O_RDWR | O_CREAT, 0666)), ENOENT);
    EXPECT_EQ(names(), Names{"other"});
}

TEST_F(MountSemantics, DescriptorsOfWhatIsGoneChangeNobodyElse) {
    fs::create_directory(*this / "folder");
    std::optional<Descriptor> gone(std::in_place, *this / "folder", O_RDONLY | O_DIRECTORY);
    const ino_t ino = gone->status().st_ino;
    fs::remove(*this / "folder");
    std::string reused; // of the directory's record
    struct stat before {};
    for (int i = 0; i < 500 && before.st_ino != ino; ++i) {
        reused = "file" + std::to_string(i);
        writeFile(*this / reused, "content");
        ASSERT_EQ(::setxattr(path(reused).c_str(), "user.mine", "x", 1, 0), 0);
        before = statusOf(reused);
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
    EXPECT_EQ(statusOf(reused).st_mtim.tv_sec, before.st_mtim.tv_sec);
    EXPECT_EQ(::getxattr(path(reused).c_str(), "user.mine", value, sizeof value), 1);
}

TEST_F(MountSemantics, LinksAreAsLongAsTheirTarget) {
    const std::string target = "Übergrößen/日本語/𝄞.txt";
    fs::create_symlink(target, *this / "link");
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(statusOf("link").st_size, static_cast<off_t>(target.size()));
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
        fs::rename(*this / "new", *this / "old");
        EXPECT_EQ(readFile(*this / "old"), "new content");
        EXPECT_EQ(open.read(5), "ooooo");
    }
    EXPECT_EQ(names(), Names{"old"});
    EXPECT_EQ(errorOf(::access(path("new").c_str(), F_OK)), ENOENT);
    expectToLast(*volume_, served_);
}

// Errors are compared with those of tmpfs (mount_conformance_test.cpp); here is what listings and
// caches show afterwards.
TEST_F(MountSemantics, RenamesShowAtOnce) {
    fs::create_directories(*this / "folder/below");
    fs::create_directory(*this / "empty");
    writeFile(*this / "file", "2");
    const auto rename = [&](const char* from, const char* to, unsigned flags = 0) {
        return errorOf(
            ::renameat2(AT_FDCWD, path(from).c_str(), AT_FDCWD, path(to).c_str(), flags));
    };
    EXPECT_EQ(rename("file", "none", RENAME_EXCHANGE), ENOENT);
    EXPECT_EQ(rename("file", "folder/below", RENAME_EXCHANGE), 0);
    EXPECT_EQ(names("file"), Names{});
    EXPECT_EQ(readFile(*this / "folder/below"), "2");
    writeFile(*this / "file/in", "");
    EXPECT_EQ(names("file/.."), (Names{"empty", "file", "folder"}));
    EXPECT_EQ(rename("folder/below", "file", RENAME_EXCHANGE), 0);
    EXPECT_EQ(names("folder/below"), Names{"in"});
    fs::remove(*this / "folder/below/in");
    EXPECT_EQ(rename("file", "FILE"), 0) << "only the case changes";
    EXPECT_EQ(rename("folder", "empty"), 0) << "an empty directory is replaced";
    EXPECT_EQ(names(), (Names{"FILE", "empty"}));
    EXPECT_EQ(names("empty"), Names{"below"});
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

TEST_F(MountSemantics, NamesThatAreNoTextAreNamesLikeOthers) {
    constexpr const char* kHigh = "high\xed\xa0\x80"; // unpaired surrogates, as Windows makes them
    constexpr const char* kLow = "\xed\xb0\x80low";
    writeFile(*this / kHigh, "content");
    EXPECT_EQ(::rename(path(kHigh).c_str(), path(kLow).c_str()), 0);
    mount();
    EXPECT_EQ(names(), Names{kLow});
    EXPECT_EQ(readFile(*this / kLow), "content");
    for (const std::string& name : {std::string("\xff"), std::string(255, '\xf4')}) {
        EXPECT_EQ(errorOf(::mkdir(path(name).c_str(), 0777)), EINVAL) << name.size();
    }
    EXPECT_EQ(::unlink(path(kLow).c_str()), 0);
    EXPECT_EQ(names(), Names{});
}

TEST_F(MountSemantics, ShortAliasesComeAndGoWithTheirFile) {
    changeByDriver(addAliased);
    EXPECT_EQ(names(), Names{"a long name.txt"});
    EXPECT_EQ(readFile(*this / "ALONGN~1.TXT"), "content");
    // Its record counts two names, but it has one to lose.
    const Descriptor open(*this / "a long name.txt", O_RDONLY);
    fs::remove(*this / "a long name.txt");
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
    fs::rename(*this / "first", *this / "folder/second"); // the same file: nothing happens
    EXPECT_EQ(fs::hard_link_count(*this / "first"), 2u);
    {
        // Locking by links, as mailers do, and a name that is made while its last owner is open.
        const Descriptor open(*this / "first", O_RDWR);
        fs::remove(*this / "first");
        EXPECT_EQ(open.status().st_nlink, 1u);
        EXPECT_EQ(link("folder/second", "first"), 0);
        EXPECT_EQ(::pwrite(open, "SHARED", 6, 0), 6);
        writeFile(*this / "other", "other");
        fs::rename(*this / "other", *this / "first");
        EXPECT_EQ(readFile(*this / "first"), "other");
        EXPECT_EQ(readFile(*this / "folder/second"), "SHARED");
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
    const auto set = [&](const char* name, std::string_view value, int flags = 0) {
        return errorOf(::setxattr(file.c_str(), name, value.data(), value.size(), flags));
    };
    char value[16];
    const auto get = [&](const char* name, size_t room) {
        const auto size = static_cast<int>(::getxattr(file.c_str(), name, value, room));
        return size == -1 ? -errno : size;
    };
    EXPECT_EQ(set("user.author", "me", XATTR_CREATE), 0);
    EXPECT_EQ(set("user.author", "x", XATTR_CREATE), EEXIST);
    EXPECT_EQ(set("user.none", "x", XATTR_REPLACE), ENODATA);
    EXPECT_EQ(set("trusted.x", "x"), EOPNOTSUPP);
    EXPECT_EQ(set("user.empty", ""), 0);
    EXPECT_EQ(get("user.author", sizeof value), 2);
    EXPECT_EQ(get("user.author", 0), 2) << "how much room it needs";
    EXPECT_EQ(get("user.author", 1), -ERANGE);
    EXPECT_EQ(get("user.empty", sizeof value), 0);
    EXPECT_EQ(get("user.none", sizeof value), -ENODATA);
    std::string list(100, '\0');
    list.resize(static_cast<size_t>(::listxattr(file.c_str(), list.data(), list.size())));
    EXPECT_EQ(list, std::string("user.author\0user.empty\0", 23));
    EXPECT_EQ(::removexattr(file.c_str(), "user.empty"), 0);
    served_->unmount();
    EXPECT_EQ(volume_->cat("file", "author"), "me");
    EXPECT_EQ(volume_->cat("file"), "content");
    mount();
}

TEST_F(MountSemantics, AttributesAndTimesStayWhatTheyWereSetTo) {
    writeFile(*this / "file", "content");
    const timespec times[2] = {{981173106, 123456700}, {1000000000, 987654300}};
    const auto setTimes = [&] {
        EXPECT_EQ(::utimensat(AT_FDCWD, path("file").c_str(), times, 0), 0);
    };
    setTimes();
    EXPECT_EQ(::chmod(path("file").c_str(), 0600), 0) << "accepted, although nothing keeps it";
    EXPECT_EQ(::chown(path("file").c_str(), 1000, 1000), 0);
    for (int i = 0; i < 2; ++i) {
        const struct stat status = statusOf("file");
        EXPECT_EQ(status.st_mtim.tv_sec, times[1].tv_sec);
        EXPECT_EQ(status.st_mtim.tv_nsec, times[1].tv_nsec);
        EXPECT_EQ(status.st_atim.tv_sec, times[0].tv_sec);
        EXPECT_EQ(status.st_mode, S_IFREG | 0777u);
        EXPECT_EQ(status.st_uid, ::getuid());
        EXPECT_EQ(status.st_size, 7);
        mount();
    }
    // Writing and truncating move the time on, also to the size that it has; reading does not.
    const std::time_t before = std::time(nullptr) - 2;
    for (const int size : {3, 0, 0}) {
        setTimes();
        if (size != 0) {
            fs::resize_file(*this / "file", 3);
        } else {
            const Descriptor truncated(*this / "file", O_WRONLY | O_TRUNC);
        }
        const struct stat status = statusOf("file");
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
    const std::string tooLong(256, 'x');
    EXPECT_EQ(errorOf(::mkdir(path(tooLong).c_str(), 0777)), ENAMETOOLONG);
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
