// How mounts begin and end: options, refusals, signals, crashes.
#include "hosts/fuse/mount/mount_request.hpp"
#include "hosts/fuse/mount/mount_table.hpp"
#include "hosts/fuse/served_volume.hpp"
#include "hosts/fuse/watches.hpp"
#include "hosts/tree.hpp"
#include "support/run_process.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <optional>
#include <poll.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace tavelin::test {
namespace {

namespace fs = std::filesystem;

class MountLifecycle : public MountTest {
  protected:
    // A file written and synchronised, and kept open.
    Descriptor synced(const std::string& name, const std::string& content) {
        Descriptor file(*this / name, O_RDWR | O_CREAT);
        EXPECT_EQ(::write(file, content.data(), content.size()),
                  static_cast<ssize_t>(content.size()));
        EXPECT_EQ(::fsync(file), 0);
        return file;
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

// As users mount it: by programs, on a directory of its own.
class MountCommands : public MountLifecycle {
  protected:
    void SetUp() override {
        MountLifecycle::SetUp();
        if (!IsSkipped()) {
            served_.reset();
            image = volume_->image();
        }
    }
    bool isServed() const { return fusehost::findMount(directory).has_value(); }
    std::string servers() const { return run({"pgrep", "-o", "-f", "tavelin mount " + image}).out; }
    // A refusal that has these words in it.
    static void expectRefused(const std::vector<std::string>& words, const char* hint) {
        const ProcessResult result = run(words);
        EXPECT_EQ(result.status, 1);
        EXPECT_NE(result.err.find(hint), std::string::npos) << result.describe();
    }

    const TempDirectory mountPoint;
    const std::string directory = mountPoint.path();
    std::string image;
};

TEST_F(MountLifecycle, SynchronisedFilesSurviveAKilledServer) {
    std::vector<Descriptor> open;
    for (int i = 0; i < 40; ++i) {
        const std::string directory = "folder" + std::to_string(i % 4);
        fs::create_directories(*this / directory);
        open.push_back(synced(directory + "/file" + std::to_string(i),
                              std::string(static_cast<size_t>(1000 * (i + 1)), 's')));
    }
    // A new name for a synchronised file is synchronised with its directory.
    fs::rename(*this / "folder0/file0", *this / "folder0/renamed");
    EXPECT_EQ(::fsync(Descriptor(*this / "folder0", O_RDONLY | O_DIRECTORY)), 0);
    const Tree expected = readTree(served_->directory());
    served_->crash();
    open.clear();
    mount();
    EXPECT_EQ(firstDifference(expected, readTree(served_->directory())), "");
    expectToLast(*volume_, served_);
}

TEST_F(MountLifecycle, ACrashLeavesNoRemovedFileBehind) {
    {
        const Descriptor open = synced("open", std::string(300'000, 'o'));
        const Descriptor replaced = synced("replaced", "old");
        writeFile(*this / "new", "new");
        fs::rename(*this / "new", *this / "replaced");
        fs::remove(*this / "open");
        ASSERT_EQ(::fsync(open), 0); // the removal is on the image now
        EXPECT_EQ(asOnTheImage()->list().size(), 2u)
            << "moved aside, where independent readers see it";
        served_->crash();
    }
    mount();
    EXPECT_FALSE(fs::exists(*this / "open"));
    EXPECT_EQ(readFile(*this / "replaced"), "new");
    expectToLast(*volume_, served_);
    served_.reset();
    EXPECT_EQ(volume_->list(), std::vector<std::string>{"replaced"});
}

TEST_F(MountLifecycle, RemovalsThatNobodySynchronisesReachTheImageAnyway) {
    const Descriptor open = synced("open", "content");
    fs::remove(*this / "open");
    // About a second of idleness parks the file, another writes that back.
    ChangeWatch image(volume_->image());
    Names onImage;
    do {
        onImage = asOnTheImage()->list();
    } while (std::find(onImage.begin(), onImage.end(), "open") != onImage.end() && image.await());
    EXPECT_EQ(onImage, Names{".tavelin-removed"});
    EXPECT_EQ(open.read(), "content");
}

TEST_F(MountLifecycle, ASignalLetsUsersFinishAndASecondDoesNot) {
    constexpr size_t kPage = 4096;
    for (const bool impatient : {false, true}) {
        std::optional<Descriptor> open(synced("file", std::string(2 * kPage, 'x')));
        // A page that only the kernel knows to be dirty, and that nobody unmaps before the end.
        void* const map =
            ::mmap(nullptr, kPage, PROT_READ | PROT_WRITE, MAP_SHARED, *open, off_t{kPage});
        ASSERT_NE(map, MAP_FAILED);
        std::fill_n(static_cast<char*>(map), kPage, '!');
        ::kill(served_->server(), impatient ? SIGINT : SIGTERM);
        MountTableWatch mounts;
        while (fusehost::findMount(served_->directory())) {
            ASSERT_TRUE(mounts.await());
        }
        EXPECT_EQ(::pwrite(*open, "CONTENT", 7, 0), 7) << "it is still served";
        if (impatient) {
            ::kill(served_->server(), SIGTERM);
            EXPECT_EQ(served_->awaitEnd(), 0);
        }
        ::munmap(map, kPage);
        open.reset();
        EXPECT_EQ(served_->awaitEnd(), 0);
        EXPECT_TRUE(volume_->cat("file") ==
                    "CONTENT" + std::string(kPage - 7, 'x') + std::string(kPage, '!'));
        mount();
    }
    expectToLast(*volume_, served_);
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
TEST_F(MountCommands, ReturnWhenServedAndWhenWritten) {
    const std::string content(1 << 20, 'c');
    EXPECT_EQ(tavelin({"mount", image, directory}), 0);
    EXPECT_TRUE(isServed());
    const auto shown = [&] { return run({TAVELIN_PROGRAM, "mounts"}).out; };
    const std::string line = image + " on " + directory + ": ";
    const std::string server = std::to_string(std::stoi(servers()));
    EXPECT_NE(shown().find(line + "read and write, process " + server), std::string::npos);
    writeFile(mountPoint / "by the program", content);
    EXPECT_EQ(tavelin({"mount", image, directory}), 1) << "in use already";
    EXPECT_TRUE(readFile(mountPoint / "by the program") == content);
    EXPECT_EQ(tavelin({"umount", directory}), 0);
    EXPECT_EQ(shown().find(line), std::string::npos);
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
    const fs::path ninth = "/proc/" + std::to_string(std::stoi(servers())) + "/fd/9";
    EXPECT_FALSE(fs::exists(ninth) && fs::read_symlink(ninth) == "/dev/null");
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
TEST_F(MountCommands, MountABlockDeviceAsItself) {
    if (::geteuid() != 0 || ::access("/dev/loop-control", R_OK | W_OK) != 0) {
        GTEST_SKIP() << "only root has devices";
    }
    std::string device = runOrThrow({"losetup", "--find", "--show", image});
    device.pop_back();
    EXPECT_EQ(tavelin({"mount", device, directory}), 0);
    EXPECT_EQ(runOrThrow({"findmnt", "-n", "-o", "TARGET", device}), directory + "\n");
    EXPECT_EQ(runOrThrow({"lsblk", "-n", "-o", "MOUNTPOINTS", device}), directory + "\n");
    EXPECT_EQ(tavelin({"mkdir", device, "folder"}), 1) << "in use";
    writeFile(mountPoint / "file", "content");
    runOrThrow({"umount", device});
    EXPECT_FALSE(isServed());
    EXPECT_EQ(tavelin({"mkdir", device, "folder"}), 0) << "free at once";
    runOrThrow({"losetup", "-d", device});
    EXPECT_EQ(volume_->cat("file"), "content");
}

// `tavelin umount` is told by the server itself when it has ended, whatever became of the image.
TEST_F(MountCommands, AnswerTrulyWhetherItIsUnmounted) {
    const TempDirectory other;
    const auto mountAgain = [&] { ASSERT_EQ(tavelin({"mount", image, directory}), 0); };

    mountAgain();
    fs::rename(image, image + ".renamed");
    ASSERT_EQ(::mkfifo(image.c_str(), 0600), 0);
    EXPECT_EQ(tavelin({"umount", directory}), 0) << "the image was replaced";
    EXPECT_EQ(servers(), "");
    fs::rename(image + ".renamed", image);

    if (::geteuid() == 0) {
        mountAgain();
        ASSERT_EQ(::mount(directory.c_str(), other.path().c_str(), nullptr, MS_BIND, nullptr), 0);
        expectRefused({TAVELIN_PROGRAM, "umount", directory}, "mounted elsewhere");
        EXPECT_EQ(tavelin({"umount", other.path()}), 0);
        EXPECT_EQ(servers(), "");
    }

    mountAgain();
    {
        const Descriptor open(mountPoint / "file", O_RDWR | O_CREAT);
        expectRefused({TAVELIN_PROGRAM, "umount", directory}, "still uses it");
    }
    EXPECT_EQ(tavelin({"umount", directory}), 0);
}

// As one user mounts and root, or another user, unmounts.
TEST_F(MountCommands, LetRootUnmountWhatAUserMounted) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can be two users";
    }
    fs::permissions(volume_->directory().path(), fs::perms(0777));
    fs::permissions(image, fs::perms(0666));
    ASSERT_EQ(::chown(directory.c_str(), 65534, 65534), 0);
    const auto asNobody = [](std::vector<std::string> words) {
        words.insert(words.begin(), {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                                     TAVELIN_PROGRAM});
        return words;
    };
    const ProcessResult mounted = run(asNobody({"mount", image, directory}));
    if (!mounted.ok()) {
        GTEST_SKIP() << "users cannot mount here: " << mounted.describe();
    }
    EXPECT_EQ(tavelin({"umount", directory}), 0);
    EXPECT_EQ(servers(), "");

    EXPECT_EQ(tavelin({"mount", image, directory}), 0);
    expectRefused(asNobody({"umount", directory}), "only root");
    EXPECT_EQ(tavelin({"umount", directory}), 0);
}

// Ctrl-C while the mount is being made: whoever waited for it has been told that there is none.
TEST_F(MountCommands, LeaveNoMountThatNobodyWaitsFor) {
    for (bool early = false; !early;) {
        std::optional<RunningProcess> caller(
            std::in_place, std::vector<std::string>{TAVELIN_PROGRAM, "mount", image, directory});
        const std::string id = std::to_string(caller->id());
        std::string server;
        while (server.empty()) {
            server = readFile("/proc/" + id + "/task/" + id + "/children");
        }
        const pid_t process = std::stoi(server);
        const FileDescriptor end(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
        ::kill(process, SIGSTOP);
        early = !isServed(); // else it may have told its caller: once more
        caller.reset();
        ::kill(process, early ? SIGCONT : SIGTERM);
        ::kill(process, SIGCONT);
        pollfd ended{end.get(), POLLIN, 0};
        EXPECT_EQ(::poll(&ended, 1, 20'000), 1) << "the server is there still";
        EXPECT_FALSE(isServed());
    }
}

TEST_F(MountLifecycle, SyncfsAndBareUnmountsReachAServerOverALoopDevice) {
    const bool reached =
        fusehost::findMount(served_->directory()).value().type == "fuseblk.tavelin";
    const std::string content(1 << 20, 'c');
    writeFile(*this / "synchronised", content);
    EXPECT_EQ(::syncfs(Descriptor(served_->directory(), O_RDONLY | O_DIRECTORY)), 0);
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

TEST_F(MountCommands, TraceThoughNobodyListens) {
    MountTableWatch mounts;
    RunningProcess server({"bash", "-o", "pipefail", "-c",
                           "\"$0\" mount --foreground --trace \"$1\" \"$2\" 2>&1 | true",
                           TAVELIN_PROGRAM, image, directory});
    while (!isServed()) {
        ASSERT_TRUE(mounts.await());
    }
    writeFile(mountPoint / "file", "content");
    EXPECT_EQ(::umount2(directory.c_str(), 0), 0);
    EXPECT_EQ(server.finish().status, 0);
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
