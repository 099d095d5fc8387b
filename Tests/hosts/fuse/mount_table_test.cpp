// One mount among others: made, told from its neighbours, shown, and taken away.
#include "hosts/fuse/mount/kernel_mount.hpp"
#include "hosts/fuse/mount/mount_table.hpp"
#include "hosts/fuse/served_volume.hpp"
#include "support/run_process.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace tavelin::test {
namespace {

namespace fs = std::filesystem;

TEST(MountTable, UnmountsAMountWhereItIsNowAndNeverAnother) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root mounts a tmpfs";
    }
    const TempDirectory root;
    const fs::path before = root.path() / "before" / "mount",
                   after = root.path() / "after" / "mount";
    const auto mountOther = [](const fs::path& directory, const char* source = "other") {
        fs::create_directories(directory);
        EXPECT_EQ(::mount(source, directory.c_str(), "tmpfs", 0, nullptr), 0);
        return *fusehost::findMount(directory);
    };
    const MountEntry moved = mountOther(before);
    fs::rename(before.parent_path(), after.parent_path());
    const MountEntry atOldPath = mountOther(before), covering = mountOther(after);
    EXPECT_EQ(fusehost::unmount(moved, false), EBUSY) << "covered";
    EXPECT_EQ(fusehost::unmount(moved, true), EBUSY) << "covered";
    EXPECT_EQ(fusehost::unmount(covering, false), 0);
    EXPECT_EQ(fusehost::unmount(moved, false), 0);
    EXPECT_FALSE(fusehost::findAgain(moved));
    // Its id and its device number belong to the next mount now.
    const MountEntry next = mountOther(after, "next");
    EXPECT_EQ(fusehost::unmount(moved, true), 0) << "gone already";
    EXPECT_TRUE(fusehost::findAgain(next));
    EXPECT_EQ(fusehost::unmount(next, false), 0);
    EXPECT_TRUE(fusehost::findAgain(atOldPath));
    EXPECT_EQ(fusehost::unmount(atOldPath, false), 0);
}

// Makes a mount of our type that nobody serves.
FileDescriptor mountUnserved(const fs::path& directory, const char* source) {
    FileDescriptor connection("/dev/fuse", O_RDWR);
    const std::string options =
        "fd=" + std::to_string(connection.get()) + ",rootmode=40000,user_id=0,group_id=0";
    EXPECT_EQ(::mount(source, directory.c_str(), "fuse.tavelin", 0, options.c_str()), 0);
    return connection;
}

TEST(MountTable, TellsAMountJustMadeFromItsNeighbours) {
    if (::geteuid() != 0 || !whyNoMounts().empty()) {
        GTEST_SKIP() << "only root mounts at will";
    }
    const TempDirectory root;
    const fs::path directory = root.path() / "parent" / "mount";
    fs::create_directories(directory);
    const FileDescriptor below = mountUnserved(directory, "same");
    const std::vector<MountEntry> before = mountTable();
    const FileDescriptor own = mountUnserved(directory, "same");
    const MountEntry entry = *fusehost::findMount(directory);
    const FileDescriptor above = mountUnserved(directory, "other");
    fs::rename(root.path() / "parent", root.path() / "elsewhere");
    fs::create_directories(directory);
    const FileDescriptor atOldPath = mountUnserved(directory, "other");
    const auto expectFound = [&](const std::string& device) {
        MountEntry made;
        made.directory = directory;
        made.source = "same";
        made.device = device;
        const auto found = fusehost::findMade(made, before);
        ASSERT_TRUE(found) << device;
        EXPECT_EQ(found->id, entry.id) << device;
    };
    expectFound("");
    expectFound(entry.device);
    ::umount2(directory.c_str(), MNT_DETACH);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(::umount2((root.path() / "elsewhere/mount").c_str(), MNT_DETACH), 0);
    }
    EXPECT_FALSE(fusehost::findMade(entry, before));
}

// Any user can make such a mount.
TEST(MountTable, IsShownThoughAServerDoesNotAnswer) {
    if (::geteuid() != 0 || !whyNoMounts().empty()) {
        GTEST_SKIP() << "only root mounts at will";
    }
    const TempDirectory one, other;
    const FileDescriptor served = mountUnserved(one.path(), "some image"),
                         more = mountUnserved(other.path(), "another");
    const ProcessResult shown = run({TAVELIN_PROGRAM, "mounts"});
    EXPECT_EQ(shown.status, 0) << shown.describe();
    for (const fs::path& directory : {one.path(), other.path()}) {
        EXPECT_NE(shown.out.find("on " + directory.string() + ": its server does not answer\n"),
                  std::string::npos)
            << shown.describe();
        EXPECT_EQ(::umount2(directory.c_str(), MNT_DETACH), 0);
    }
}

// What the path leads to may change while the volume is opened.
TEST(KernelMount, IsOfTheImageThatWasOpened) {
    if (::geteuid() != 0 || ::access("/dev/loop-control", R_OK | W_OK) != 0) {
        GTEST_SKIP() << "only root has devices";
    }
    const TempDirectory directory, mountPoint;
    fusehost::MountRequest request;
    request.image = directory / "image";
    request.directory = mountPoint.path();
    writeFile(request.image, std::string(1 << 20, 'o'));
    FileDescriptor image(request.image.c_str(), O_RDWR);
    fs::rename(request.image, directory / "moved");
    writeFile(request.image, std::string(1 << 20, 'n'));
    // In a process of its own, as always: libfuse leaves something behind.
    const pid_t child = ::fork();
    if (child == 0) {
        fusehost::KernelMount mount(request, std::move(image));
        const std::vector<FileDescriptor> opened = mount.make(false);
        char byte = 0;
        const bool isShown = opened.size() == 2 && opened[1].readAt(&byte, 1, 0).bytes == 1;
        const bool isGone = mount.takeAway({.lazily = true, .served = false}) == 0;
        ::_exit(isShown && isGone ? byte : 0);
    }
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(WEXITSTATUS(status), 'o');
    EXPECT_FALSE(fusehost::findMount(mountPoint.path()));
}

// Also where the kernel does not tell the device of a connection, as before Linux 6.18.
TEST(KernelMount, RefusesADeviceThatCameInsteadOfTheOneThatWasOpened) {
    if (::geteuid() != 0 || ::access("/dev/loop-control", R_OK | W_OK) != 0) {
        GTEST_SKIP() << "only root has devices";
    }
    const TempDirectory directory, mountPoint;
    const auto attached = [&](const char* name) {
        writeFile(directory / name, std::string(1 << 20, 'x'));
        std::string device = runOrThrow({"losetup", "--find", "--show", directory / name});
        return device.substr(0, device.find('\n'));
    };
    const std::string opened = attached("opened"), other = attached("other");
    fusehost::MountRequest request;
    request.image = directory / "link";
    request.directory = mountPoint.path();
    for (const bool isTold : {true, false}) {
        fs::create_symlink(opened, request.image);
        FileDescriptor image(request.image.c_str(), O_RDWR);
        fs::remove(request.image);
        fs::create_symlink(other, request.image);
        const pid_t child = ::fork();
        if (child == 0) { // with a namespace of its own, so that nothing stays
            const bool isPrepared =
                ::unshare(CLONE_NEWNS) == 0 &&
                ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                (isTold || ::mount("none", "/proc/self/fdinfo", "tmpfs", 0, nullptr) == 0);
            fusehost::KernelMount mount(request, std::move(image));
            ::_exit(!isPrepared                              ? 1
                    : !mount.make(false).empty()             ? 2
                    : fusehost::findMount(mountPoint.path()) ? 3
                                                             : 0);
        }
        int status = -1;
        EXPECT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0) << isTold << " " << WEXITSTATUS(status);
        fs::remove(request.image);
    }
    runOrThrow({"losetup", "--detach", opened, other});
}

} // namespace
} // namespace tavelin::test
