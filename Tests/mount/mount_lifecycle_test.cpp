// How mounts begin and end: options, refusals, signals, crashes.
#include "hosts/fuse/commands.hpp"
#include "hosts/fuse/mount_table.hpp"
#include "mount/served_volume.hpp"
#include "mount/tree.hpp"
#include "mount/watches.hpp"
#include "support/run_process.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tavelin::test {
namespace {

namespace fs = std::filesystem;

class MountLifecycle : public MountTest {
  protected:
    // A file written and synchronised, and kept open.
    int synced(const std::string& name, const std::string& content) {
        const int fd = ::open(path(name).c_str(), O_RDWR | O_CREAT, 0666);
        EXPECT_EQ(::write(fd, content.data(), content.size()),
                  static_cast<ssize_t>(content.size()));
        EXPECT_EQ(::fsync(fd), 0);
        return fd;
    }

    // The volume as a crash would leave it now; the image itself is locked while it is served.
    std::unique_ptr<SampleVolume> asOnTheImage() const {
        auto copy = std::make_unique<SampleVolume>();
        runOrThrow({"cp", "--sparse=always", volume_->image(), copy->image()});
        return copy;
    }

    // Runs a command of ours in a process of its own, as the command line would.
    static int inProcess(const std::function<int()>& command) {
        const pid_t child = ::fork();
        if (child == 0) {
            const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
            ::dup2(null, STDERR_FILENO);
            closeInherited();
            std::_Exit(command());
        }
        int status = 0;
        ::waitpid(child, &status, 0);
        return WEXITSTATUS(status);
    }
};

TEST_F(MountLifecycle, SynchronisedFilesSurviveAKilledServer) {
    std::vector<int> open;
    for (int i = 0; i < 40; ++i) {
        const std::string folder = "folder" + std::to_string(i % 4);
        fs::create_directories(*this / folder);
        open.push_back(synced(folder + "/file" + std::to_string(i),
                              std::string(static_cast<size_t>(1000 * (i + 1)), 's')));
    }
    // A new name for a synchronised file is synchronised with its folder.
    fs::rename(*this / "folder0/file0", *this / "folder0/renamed");
    const int folder = ::open(path("folder0").c_str(), O_RDONLY | O_DIRECTORY);
    EXPECT_EQ(::fsync(folder), 0);
    ::close(folder);
    const Tree expected = readTree(served_->folder());
    served_->crash();
    for (const int fd : open) {
        ::close(fd);
    }
    mount();
    EXPECT_EQ(firstDifference(expected, readTree(served_->folder())), "");
    expectToLast(*volume_, served_);
}

TEST_F(MountLifecycle, ACrashLeavesNoRemovedFileBehind) {
    const int open = synced("open", std::string(300'000, 'o'));
    const int replaced = synced("replaced", "old");
    writeFile(*this / "new", "new");
    fs::rename(*this / "new", *this / "replaced");
    fs::remove(*this / "open");
    ASSERT_EQ(::fsync(open), 0); // the removal is on the image now
    EXPECT_EQ(asOnTheImage()->list().size(), 2u) << "parked, where independent readers see it";
    served_->crash();
    ::close(open);
    ::close(replaced);
    mount();
    EXPECT_FALSE(fs::exists(*this / "open"));
    EXPECT_EQ(readFile(*this / "replaced"), "new");
    EXPECT_EQ(served_->unmount(), 0);
    EXPECT_EQ(volume_->list(), std::vector<std::string>{"replaced"});
    served_.reset();
}

TEST_F(MountLifecycle, RemovalsThatNobodySynchronisesReachTheImageAnyway) {
    const int open = synced("open", "content");
    fs::remove(*this / "open");
    // About a second of idleness parks the file, another writes that back.
    ChangeWatch image(volume_->image());
    std::vector<std::string> names;
    do {
        names = asOnTheImage()->list();
    } while (std::find(names.begin(), names.end(), "open") != names.end() && image.await());
    EXPECT_EQ(names, std::vector<std::string>{".tavelin-removed"});
    char byte = 0;
    EXPECT_EQ(::pread(open, &byte, 1, 0), 1);
    ::close(open);
}

TEST_F(MountLifecycle, SignalsUnmountWithEverythingWritten) {
    for (const int signal : {SIGTERM, SIGINT}) {
        writeFile(*this / "file", std::string(3 << 20, static_cast<char>(signal)));
        // Pages that only the kernel knows to be dirty.
        const int fd = ::open(path("file").c_str(), O_RDWR);
        void* const map = ::mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        ASSERT_NE(map, MAP_FAILED);
        std::fill_n(static_cast<char*>(map), 8192, '!');
        ::munmap(map, 8192);
        ::close(fd);
        ::kill(served_->server(), signal);
        EXPECT_EQ(served_->awaitEnd(), 0);
        EXPECT_FALSE(fusehost::findMount(served_->folder()));
        EXPECT_TRUE(volume_->cat("file").starts_with(std::string(8192, '!')));
        mount();
        EXPECT_EQ(readFile(*this / "file").size(), 3u << 20);
    }
}

TEST_F(MountLifecycle, ASignalLetsUsersFinishAndASecondDoesNot) {
    for (const bool impatient : {false, true}) {
        const int open = synced("file", "content");
        ::kill(served_->server(), SIGTERM);
        MountTableWatch mounts;
        while (fusehost::findMount(served_->folder())) {
            ASSERT_TRUE(mounts.await());
        }
        EXPECT_EQ(::pwrite(open, "CONTENT", 7, 0), 7) << "it is still served";
        if (impatient) {
            EXPECT_EQ(::fsync(open), 0);
            ::kill(served_->server(), SIGTERM);
        }
        ::close(open);
        EXPECT_EQ(served_->awaitEnd(), 0);
        mount();
        EXPECT_EQ(readFile(*this / "file"), "CONTENT");
    }
}

TEST_F(MountLifecycle, AnUnmountReturnsWithEverythingWritten) {
    writeFile(*this / "file", std::string(1 << 20, 'x'));
    const fs::path folder = served_->folder();
    EXPECT_EQ(inProcess([&] { return fusehost::unmountVolume(folder); }), 0);
    EXPECT_EQ(volume_->cat("file").size(), 1u << 20);
    EXPECT_EQ(served_->awaitEnd(), 0);
    EXPECT_EQ(inProcess([&] { return fusehost::unmountVolume(folder); }), 1) << "nothing there";
    if (::geteuid() == 0) {
        // Over a loop device even a bare umount waits, and syncfs reaches us.
        mount();
        writeFile(*this / "second", "second");
        const int fd = ::open(path("second").c_str(), O_RDONLY);
        EXPECT_EQ(::syncfs(fd), 0);
        ::close(fd);
        if (fusehost::findMount(served_->folder())->type == "fuseblk.tavelin") {
            EXPECT_EQ(asOnTheImage()->cat("second"), "second");
        }
    }
}

TEST_F(MountLifecycle, StartsInTheBackgroundAndRefusesInTheForeground) {
    served_.reset();
    const TempFolder folder;
    fusehost::MountRequest request;
    request.image = volume_->image();
    request.folder = folder.path();
    EXPECT_EQ(inProcess([&] { return fusehost::mountVolume(request); }), 0);
    EXPECT_TRUE(fusehost::findMount(folder.path())) << "served once the command has returned";
    writeFile(folder / "file", "content");
    fusehost::MountRequest again = request;
    EXPECT_EQ(inProcess([&] { return fusehost::mountVolume(again); }), 1) << "in use already";
    EXPECT_EQ(readFile(folder / "file"), "content");
    EXPECT_EQ(inProcess([&] { return fusehost::unmountVolume(folder.path()); }), 0);
    EXPECT_EQ(volume_->cat("file"), "content");

    writeFile(folder / "no volume", std::string(1 << 20, 'n'));
    for (const fs::path& image : {folder / "missing", folder / "no volume", folder.path()}) {
        request.image = image;
        EXPECT_EQ(inProcess([&] { return fusehost::mountVolume(request); }), 1) << image;
    }
    EXPECT_FALSE(fusehost::findMount(folder.path()));
}

TEST(MountOptions, AreSortedByWhomTheyConcern) {
    fusehost::MountRequest request;
    EXPECT_EQ(fusehost::applyOptions("rw,noatime,,windows_names,allow_other,nonsense,_netdev,"
                                     "x-systemd.automount,uid=5",
                                     request),
              (std::vector<std::string>{"nonsense", "uid=5"}));
    EXPECT_TRUE(request.allowOther);
    EXPECT_FALSE(request.readOnly);
    EXPECT_EQ(request.kernelOptions, std::vector<std::string>{"noatime"});
    EXPECT_EQ(request.volumeOptions, std::vector<std::string>{"windows_names"});
    EXPECT_TRUE(fusehost::applyOptions("ro", request).empty());
    EXPECT_TRUE(request.readOnly);
}

} // namespace
} // namespace tavelin::test
