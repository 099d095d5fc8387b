// How mounts begin and end: options, refusals, signals, crashes.
#include "hosts/fuse/mount/mount_request.hpp"
#include "hosts/fuse/mount/mount_table.hpp"
#include "hosts/fuse/served_volume.hpp"
#include "hosts/fuse/tree.hpp"
#include "hosts/fuse/watches.hpp"
#include "support/run_process.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
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

    // Runs the built program to its end, and answers its exit status; it says why when that is bad.
    static int tavelin(std::vector<std::string> words) {
        words.insert(words.begin(), TAVELIN_PROGRAM);
        const ProcessResult result = run(words);
        EXPECT_NE(result.ok(), result.err.starts_with("tavelin: ")) << result.describe();
        return result.status;
    }
};

TEST_F(MountLifecycle, SynchronisedFilesSurviveAKilledServer) {
    std::vector<int> open;
    for (int i = 0; i < 40; ++i) {
        const std::string directory = "folder" + std::to_string(i % 4);
        fs::create_directories(*this / directory);
        open.push_back(synced(directory + "/file" + std::to_string(i),
                              std::string(static_cast<size_t>(1000 * (i + 1)), 's')));
    }
    // A new name for a synchronised file is synchronised with its directory.
    fs::rename(*this / "folder0/file0", *this / "folder0/renamed");
    const int directory = ::open(path("folder0").c_str(), O_RDONLY | O_DIRECTORY);
    EXPECT_EQ(::fsync(directory), 0);
    ::close(directory);
    const Tree expected = readTree(served_->directory());
    served_->crash();
    for (const int fd : open) {
        ::close(fd);
    }
    mount();
    EXPECT_EQ(firstDifference(expected, readTree(served_->directory())), "");
    expectToLast(*volume_, served_);
}

TEST_F(MountLifecycle, ACrashLeavesNoRemovedFileBehind) {
    const int open = synced("open", std::string(300'000, 'o'));
    const int replaced = synced("replaced", "old");
    writeFile(*this / "new", "new");
    fs::rename(*this / "new", *this / "replaced");
    fs::remove(*this / "open");
    ASSERT_EQ(::fsync(open), 0); // the removal is on the image now
    EXPECT_EQ(asOnTheImage()->list().size(), 2u) << "moved aside, where independent readers see it";
    served_->crash();
    ::close(open);
    ::close(replaced);
    mount();
    EXPECT_FALSE(fs::exists(*this / "open"));
    EXPECT_EQ(readFile(*this / "replaced"), "new");
    expectToLast(*volume_, served_);
    served_.reset();
    EXPECT_EQ(volume_->list(), std::vector<std::string>{"replaced"});
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
        const std::string content(3 << 20, static_cast<char>(signal));
        writeFile(*this / "file", content);
        ::kill(served_->server(), signal);
        EXPECT_EQ(served_->awaitEnd(), 0);
        EXPECT_FALSE(fusehost::findMount(served_->directory()));
        EXPECT_TRUE(volume_->cat("file") == content);
        mount();
    }
    expectToLast(*volume_, served_);
}

TEST_F(MountLifecycle, ASignalLetsUsersFinishAndASecondDoesNot) {
    constexpr size_t kPage = 4096;
    for (const bool impatient : {false, true}) {
        const int open = synced("file", std::string(2 * kPage, 'x'));
        // A page that only the kernel knows to be dirty, and that nobody unmaps before the end.
        void* const map =
            ::mmap(nullptr, kPage, PROT_READ | PROT_WRITE, MAP_SHARED, open, off_t{kPage});
        ASSERT_NE(map, MAP_FAILED);
        std::fill_n(static_cast<char*>(map), kPage, '!');
        ::kill(served_->server(), SIGTERM);
        MountTableWatch mounts;
        while (fusehost::findMount(served_->directory())) {
            ASSERT_TRUE(mounts.await());
        }
        EXPECT_EQ(::pwrite(open, "CONTENT", 7, 0), 7) << "it is still served";
        if (impatient) {
            ::kill(served_->server(), SIGTERM);
            EXPECT_EQ(served_->awaitEnd(), 0);
        }
        ::munmap(map, kPage);
        ::close(open);
        EXPECT_EQ(served_->awaitEnd(), 0);
        EXPECT_TRUE(volume_->cat("file") ==
                    "CONTENT" + std::string(kPage - 7, 'x') + std::string(kPage, '!'));
        mount();
    }
    expectToLast(*volume_, served_);
}

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

TEST_F(MountLifecycle, SignalsLeaveAMountOnTopAlone) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root mounts a tmpfs";
    }
    const fs::path directory = served_->directory();
    ASSERT_EQ(::mount("other", directory.c_str(), "tmpfs", 0, nullptr), 0);
    writeFile(directory / "data", "of somebody else");
    ::kill(served_->server(), SIGTERM);
    ::kill(served_->server(), SIGINT); // the first cannot unmount, the second ends the serving
    EXPECT_EQ(served_->awaitEnd(), 0) << served_->printed();
    EXPECT_EQ(readFile(directory / "data"), "of somebody else");
    EXPECT_EQ(::umount2(directory.c_str(), 0), 0);
    EXPECT_EQ(::umount2(directory.c_str(), MNT_DETACH), 0) << "the dead mount was left below";
    mount();
}

// As users type them: the program, the helper of mount(8), and the unmounting programs.
TEST_F(MountLifecycle, CommandsReturnWhenServedAndWhenWritten) {
    served_.reset();
    const TempDirectory mountPoint;
    const std::string directory = mountPoint.path(), image = volume_->image();
    const std::string content(1 << 20, 'c');
    const auto isServed = [&] { return fusehost::findMount(directory).has_value(); };
    EXPECT_EQ(tavelin({"mount", image, directory}), 0);
    EXPECT_TRUE(isServed());
    writeFile(mountPoint / "by the program", content);
    EXPECT_EQ(tavelin({"mount", image, directory}), 1) << "in use already";
    EXPECT_TRUE(readFile(mountPoint / "by the program") == content);
    EXPECT_EQ(tavelin({"umount", directory}), 0);
    EXPECT_TRUE(volume_->cat("by the program") == content);
    EXPECT_EQ(tavelin({"umount", directory}), 1) << "nothing there";

    runOrThrow({"env",
                "PATH=" + fs::path(TAVELIN_PROGRAM).parent_path().string() + ":/usr/bin:/bin",
                MOUNT_HELPER, image, directory, "-o", "rw,nodev,noatime", "-s"});
    writeFile(mountPoint / "by the helper", content);
    EXPECT_EQ(tavelin({"umount", directory}), 0);
    EXPECT_TRUE(volume_->cat("by the helper") == content);

    // As a shell with a limit starts it, that has a file of its own open.
    runOrThrow({"bash", "-c", "ulimit -f 49152; exec 9</dev/null; \"$0\" mount \"$1\" \"$2\"",
                TAVELIN_PROGRAM, image, directory});
    const std::string server = runOrThrow({"pgrep", "-f", "tavelin mount " + image});
    EXPECT_FALSE(fs::exists("/proc/" + server.substr(0, server.size() - 1) + "/fd/9") &&
                 fs::read_symlink("/proc/" + server.substr(0, server.size() - 1) + "/fd/9") ==
                     "/dev/null");
    EXPECT_NE(run({"dd", "if=/dev/zero", "of=" + directory + "/big", "bs=1M", "count=60"}).status,
              0)
        << "beyond the limit";
    EXPECT_TRUE(readFile(mountPoint / "by the helper") == content);
    EXPECT_EQ(tavelin({"umount", directory}), 0);

    writeFile(mountPoint / "no volume", content);
    for (const fs::path& none :
         {mountPoint / "missing", mountPoint / "no volume", mountPoint.path()}) {
        EXPECT_EQ(tavelin({"mount", none, directory}), 1) << none;
    }
    EXPECT_EQ(tavelin({"mount", "--trace", image, directory}), 2) << "nowhere to print to";
    EXPECT_FALSE(isServed());
}

// What the volume is mounted from is what programs look it up by.
TEST_F(MountLifecycle, ABlockDeviceIsMountedAsItself) {
    if (::geteuid() != 0 || ::access("/dev/loop-control", R_OK | W_OK) != 0) {
        GTEST_SKIP() << "only root has devices";
    }
    served_.reset();
    std::string device = runOrThrow({"losetup", "--find", "--show", volume_->image()});
    device.pop_back();
    const TempDirectory mountPoint;
    EXPECT_EQ(tavelin({"mount", device, mountPoint.path()}), 0);
    EXPECT_EQ(runOrThrow({"findmnt", "-n", "-o", "TARGET", device}),
              mountPoint.path().string() + "\n");
    EXPECT_EQ(tavelin({"mkdir", device, "folder"}), 1) << "in use";
    writeFile(mountPoint / "file", "content");
    runOrThrow({"umount", device});
    EXPECT_FALSE(fusehost::findMount(mountPoint.path()));
    EXPECT_EQ(tavelin({"mkdir", device, "folder"}), 0) << "free at once";
    runOrThrow({"losetup", "-d", device});
    EXPECT_EQ(volume_->cat("file"), "content");
}

// `tavelin umount` is told by the server itself when it has ended, whatever became of the image.
TEST_F(MountLifecycle, UnmountingAnswersTruly) {
    served_.reset();
    const TempDirectory mountPoint, other;
    const std::string directory = mountPoint.path(), image = volume_->image();
    const auto mountAgain = [&] { ASSERT_EQ(tavelin({"mount", image, directory}), 0); };
    const auto servers = [&] { return run({"pgrep", "-f", "tavelin mount " + image}).out; };

    mountAgain();
    fs::rename(image, image + ".renamed");
    ASSERT_EQ(::mkfifo(image.c_str(), 0600), 0);
    EXPECT_EQ(tavelin({"umount", directory}), 0) << "the image was replaced";
    EXPECT_EQ(servers(), "");
    fs::rename(image + ".renamed", image);

    if (::geteuid() == 0) {
        mountAgain();
        ASSERT_EQ(::mount(directory.c_str(), other.path().c_str(), nullptr, MS_BIND, nullptr), 0);
        const ProcessResult bound = run({TAVELIN_PROGRAM, "umount", directory});
        EXPECT_EQ(bound.status, 1);
        EXPECT_NE(bound.err.find("mounted elsewhere"), std::string::npos) << bound.describe();
        EXPECT_EQ(tavelin({"umount", other.path()}), 0);
        EXPECT_EQ(servers(), "");
    }

    mountAgain();
    const int open = ::open((mountPoint / "file").c_str(), O_RDWR | O_CREAT, 0666);
    const ProcessResult busy = run({TAVELIN_PROGRAM, "umount", directory});
    EXPECT_NE(busy.err.find("still uses it"), std::string::npos) << busy.describe();
    ::close(open);
    EXPECT_EQ(tavelin({"umount", directory}), 0);
}

// As one user mounts and root, or another user, unmounts.
TEST_F(MountLifecycle, RootUnmountsWhatAUserMounted) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can be two users";
    }
    served_.reset();
    const TempDirectory mountPoint;
    const std::string directory = mountPoint.path(), image = volume_->image();
    fs::permissions(volume_->directory().path(), fs::perms(0777));
    fs::permissions(image, fs::perms(0666));
    ASSERT_EQ(::chown(directory.c_str(), 65534, 65534), 0);
    const std::vector<std::string> nobody{"setpriv", "--reuid=65534", "--regid=65534",
                                          "--clear-groups", TAVELIN_PROGRAM};
    const auto asNobody = [&](std::vector<std::string> words) {
        words.insert(words.begin(), nobody.begin(), nobody.end());
        return run(words);
    };
    const ProcessResult mounted = asNobody({"mount", image, directory});
    if (!mounted.ok()) {
        GTEST_SKIP() << "users cannot mount here: " << mounted.describe();
    }
    EXPECT_EQ(tavelin({"umount", directory}), 0);
    EXPECT_EQ(run({"pgrep", "-f", "tavelin mount " + image}).out, "");

    EXPECT_EQ(tavelin({"mount", image, directory}), 0);
    const ProcessResult refused = asNobody({"umount", directory});
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("only root"), std::string::npos) << refused.describe();
    EXPECT_EQ(tavelin({"umount", directory}), 0);
}

// Ctrl-C while the mount is being made: whoever waited for it has been told that there is none.
TEST_F(MountLifecycle, AMountThatNobodyWaitsForGoes) {
    served_.reset();
    const TempDirectory mountPoint;
    const std::string directory = mountPoint.path();
    for (bool early = false; !early;) {
        const pid_t caller = ::fork();
        if (caller == 0) {
            ::execl(TAVELIN_PROGRAM, "tavelin", "mount", volume_->image().c_str(),
                    directory.c_str(), nullptr);
            std::_Exit(127);
        }
        const std::string children =
            "/proc/" + std::to_string(caller) + "/task/" + std::to_string(caller) + "/children";
        std::string server;
        while (server.empty()) {
            server = runOrThrow({"cat", children});
        }
        const pid_t process = std::stoi(server);
        const int end = static_cast<int>(::syscall(SYS_pidfd_open, process, 0));
        ::kill(process, SIGSTOP);
        early = !fusehost::findMount(directory); // else it may have told its caller: once more
        ::kill(caller, SIGKILL);
        ::waitpid(caller, nullptr, 0);
        ::kill(process, early ? SIGCONT : SIGTERM);
        ::kill(process, SIGCONT);
        pollfd ended{end, POLLIN, 0};
        EXPECT_EQ(::poll(&ended, 1, 20'000), 1) << "the server is there still";
        ::close(end);
        EXPECT_FALSE(fusehost::findMount(directory));
    }
}

TEST_F(MountLifecycle, SyncfsAndBareUnmountsReachAServerOverALoopDevice) {
    const bool reached =
        fusehost::findMount(served_->directory()).value().type == "fuseblk.tavelin";
    const std::string content(1 << 20, 'c');
    writeFile(*this / "synchronised", content);
    const int fd = ::open(served_->directory().c_str(), O_RDONLY | O_DIRECTORY);
    EXPECT_EQ(::syncfs(fd), 0);
    ::close(fd);
    EXPECT_TRUE(!reached || asOnTheImage()->cat("synchronised") == content);
    writeFile(*this / "unmounted", content);
    runOrThrow({"fusermount3", "-u", served_->directory()});
    EXPECT_TRUE(!reached || asOnTheImage()->cat("unmounted") == content);
    EXPECT_EQ(served_->awaitEnd(), 0);
    mount();
    expectToLast(*volume_, served_);
}

TEST_F(MountLifecycle, AnUnmountedImageCanBeMountedAtOnce) {
    if (fusehost::findMount(served_->directory())->type != "fuseblk.tavelin") {
        GTEST_SKIP() << "without a loop device an unmount does not wait";
    }
    std::vector<std::unique_ptr<ServedVolume>> servers;
    for (int i = 0; i < 20; ++i) {
        writeFile(*this / "file", "content"); // it is being served
        ASSERT_EQ(::umount2(served_->directory().c_str(), 0), 0);
        servers.push_back(std::move(served_)); // it may still be ending
        served_ = std::make_unique<ServedVolume>(volume_->image());
    }
    for (const auto& server : servers) {
        EXPECT_EQ(server->awaitEnd(), 0);
    }
}

TEST_F(MountLifecycle, NobodyNeedListenToATrace) {
    served_.reset();
    const TempDirectory directory;
    MountTableWatch mounts;
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const pid_t server = ::fork();
    if (server == 0) {
        ::dup2(ends[1], STDERR_FILENO);
        ::execl(TAVELIN_PROGRAM, "tavelin", "mount", "--foreground", "--trace",
                volume_->image().c_str(), directory.path().c_str(), nullptr);
        std::_Exit(127);
    }
    ::close(ends[0]);
    ::close(ends[1]);
    while (!fusehost::findMount(directory.path())) {
        ASSERT_TRUE(mounts.await());
    }
    writeFile(directory / "file", "content");
    EXPECT_EQ(::umount2(directory.path().c_str(), 0), 0);
    int status = 0;
    ASSERT_EQ(::waitpid(server, &status, 0), server);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(volume_->cat("file"), "content");
}

TEST(MountOptions, AreSortedByWhomTheyConcern) {
    fusehost::MountRequest request;
    EXPECT_EQ(
        fusehost::applyOptions("rw,noatime,,windows_names,allow_other,nonsense,_netdev,"
                               "x-systemd.automount,uid=5,uid=me,umask=9,fmask=01777,"
                               "default_permissions,strictatime",
                               request),
        (std::vector<std::string>{"nonsense", "uid=me", "umask=9", "fmask=01777", "strictatime"}));
    EXPECT_EQ(request.user, 5u);
    EXPECT_FALSE(request.fileMask);
    EXPECT_TRUE(request.allowOther);
    EXPECT_FALSE(request.readOnly);
    EXPECT_EQ(request.kernelOptions, (std::vector<std::string>{"noatime", "default_permissions"}));
    EXPECT_EQ(request.volumeOptions, std::vector<std::string>{"windows_names"});
    EXPECT_TRUE(fusehost::applyOptions("ro", request).empty());
    EXPECT_TRUE(request.readOnly);
}

} // namespace
} // namespace tavelin::test
