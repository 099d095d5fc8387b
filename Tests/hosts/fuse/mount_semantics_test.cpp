// What this file system has and others have not: aliases, names of Windows, what it does not keep.
#include "hosts/fuse/served_volume.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <limits>
#include <sched.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace tavelin::test {
namespace {

namespace fs = std::filesystem;

using MountSemantics = MountTest;

// What sequences of calls do to files is compared with tmpfs (mount_conformance_test.cpp); here is
// where removed files are meanwhile, and a link, which no program opens as a file.
TEST_F(MountSemantics, WhatIsRemovedAndInUseIsSeenNowhere) {
    fs::create_symlink("target", *this / "link");
    {
        const Descriptor link(*this / "link", O_PATH | O_NOFOLLOW);
        fs::remove(*this / "link");
        // New files, whose records must not be that of the one still open.
        for (int i = 0; i < 50; ++i) {
            writeFile(*this / ("new" + std::to_string(i)), std::string(2000, 'n'));
        }
        EXPECT_EQ(link.status().st_mode & S_IFMT, S_IFLNK + 0u);
        EXPECT_EQ(link.status().st_nlink, 0u);
        char target[16];
        EXPECT_EQ(::readlinkat(link, "", target, sizeof target), 6);
        EXPECT_EQ(::fsync(Descriptor(*this / "new0", O_RDONLY)), 0); // moves it aside
        EXPECT_EQ(errorOf(::access(path(".tavelin-removed").c_str(), F_OK)), ENOENT);
        EXPECT_EQ(errorOf(::mkdir(path(".tavelin-removed").c_str(), 0777)), EPERM);
        EXPECT_EQ(names().size(), 50u);
    }
    served_->unmount();
    EXPECT_EQ(volume_->list().size(), 50u) << "the orphan directory is gone";
    mount();
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

TEST_F(MountSemantics, WhatIsNotOfferedSaysSo) {
    writeFile(*this / "file", "content");
    const std::string named = path("file");
    EXPECT_EQ(errorOf(::setxattr(named.c_str(), "trusted.x", "x", 1, 0)), EOPNOTSUPP);
    EXPECT_EQ(errorOf(static_cast<int>(::getxattr(named.c_str(), "trusted.x", nullptr, 0))),
              EOPNOTSUPP);
    EXPECT_EQ(::chmod(named.c_str(), 0600), 0) << "accepted, although nothing keeps it";
    EXPECT_EQ(::chown(named.c_str(), 1000, 1000), 0);
    EXPECT_EQ(statusOf("file").st_mode, S_IFREG | 0777u);
    EXPECT_EQ(statusOf("file").st_uid, ::getuid());
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
