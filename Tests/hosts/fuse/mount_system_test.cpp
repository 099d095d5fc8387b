// A mount as a part of the system: mount(8), fstab, namespaces, users, remounts.
#include "hosts/fuse/mount/mount_table.hpp"
#include "hosts/fuse/served_volume.hpp"
#include "support/run_process.hpp"

#include <csignal>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace tavelin::test {
namespace {

namespace fs = std::filesystem;

class MountSystem : public MountTest {
  protected:
    void SetUp() override {
        if (::geteuid() != 0 || !run({"unshare", "--mount", "true"}).ok()) {
            GTEST_SKIP() << "only root has mount namespaces";
        }
        MountTest::SetUp();
    }

    // Runs a script in a mount namespace of its own, with the words as its arguments.
    static ProcessResult inNamespace(const std::string& script, std::vector<std::string> words) {
        words.insert(words.begin(), {"unshare", "--mount", "--propagation", "private", "bash",
                                     "-euc", script, "script"});
        return run(words);
    }
};

// fstab lines name a type, whose helper mount(8) looks for in /sbin. The namespace has one there.
TEST_F(MountSystem, FstabLinesMountOnce) {
    served_.reset();
    const TempDirectory directory, helpers;
    const std::string line = volume_->image().string() + " " + directory.path().string() +
                             " tavelin uid=1000,gid=1000,windows_names,nofail 0 0\n";
    writeFile(helpers / "fstab", line);
    fs::create_directories(helpers / "work");
    const ProcessResult result =
        inNamespace("mount -t tmpfs tmpfs \"$1\" && mkdir \"$1/upper\" \"$1/work\" &&\n"
                    "options=lowerdir=/usr/sbin,upperdir=$1/upper,workdir=$1/work &&\n"
                    "mount -t overlay -o \"$options\" overlay /usr/sbin || exit 77\n"
                    "cp \"$4\" /usr/sbin/mount.tavelin\n"
                    "ln -s \"$5\" /usr/sbin/tavelin\n"
                    "mount -a -T \"$2\"\n"
                    "findmnt -n -o FSTYPE \"$3\"\n"
                    "mount -a -T \"$2\"\n"
                    "findmnt -n -o FSTYPE \"$3\"\n"
                    "echo content > \"$3/file\"\n"
                    "stat -c %u:%g \"$3/file\"\n"
                    "mount -T \"$2\" -o remount,ro \"$3\"\n"
                    "if mkdir \"$3/folder\" 2>/dev/null; then exit 1; fi\n"
                    "mount -T \"$2\" -o remount,rw \"$3\"\n"
                    "mkdir \"$3/folder\"\n"
                    "tavelin umount \"$3\"\n"
                    "mv /usr/sbin/mount.tavelin /usr/sbin/mount.fuse.tavelin\n"
                    "mount -t fuse.tavelin -o umask=027 \"$6\" \"$3\"\n"
                    "stat -c %a \"$3/file\"\n"
                    "umount \"$3\"\n",
                    {helpers / "work", helpers / "fstab", directory.path(), MOUNT_HELPER,
                     TAVELIN_PROGRAM, volume_->image()});
    if (result.status == 77) {
        GTEST_SKIP() << "nothing can be put into /usr/sbin here: " << result.err;
    }
    EXPECT_EQ(result.status, 0) << result.describe();
    EXPECT_EQ(result.out, "fuseblk.tavelin\nfuseblk.tavelin\n1000:1000\n750\n");
    EXPECT_EQ(volume_->cat("file"), "content\n");
}

// The kernel changes its own checks, and says nothing of it to the server.
TEST_F(MountSystem, RemountsChangeWhatTheKernelChecks) {
    const std::string directory = served_->directory();
    writeFile(*this / "file", "content");
    ASSERT_EQ(::mount(nullptr, directory.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    EXPECT_EQ(errorOf(::mkdir(path("folder").c_str(), 0777)), EROFS);
    EXPECT_EQ(readFile(*this / "file"), "content");
    ASSERT_EQ(::mount(nullptr, directory.c_str(), nullptr, MS_REMOUNT | MS_NOEXEC, nullptr), 0);
    EXPECT_EQ(::mkdir(path("folder").c_str(), 0777), 0);
    EXPECT_EQ(errorOf(::access(path("file").c_str(), X_OK)), EACCES);
}

TEST_F(MountSystem, OfOppositesTheLastCounts) {
    const struct {
        const char* options;
        unsigned long flags;
    } kRows[] = {
        {"", ST_NOSUID | ST_NODEV},
        {"suid,dev", 0},
        {"suid,nosuid,dev,nodev,exec,noexec", ST_NOSUID | ST_NODEV | ST_NOEXEC},
        {"nosuid,suid,nodev,dev,noexec,exec", 0},
    };
    for (const auto& row : kRows) {
        mount(row.options);
        struct statvfs status {};
        ASSERT_EQ(::statvfs(path("").c_str(), &status), 0);
        EXPECT_EQ(status.f_flag & (ST_NOSUID | ST_NODEV | ST_NOEXEC), row.flags) << row.options;
    }
}

// A container: a process with mounts of its own, which runs the lines that it is given.
struct Container : RunningProcess {
    Container()
        : RunningProcess({"unshare", "--mount", "--propagation", "private", "bash", "-c",
                          "while read -r line; do eval \"$line\"; done"}) {}
    // What the command prints, in one line.
    std::string answer(const std::string& command) {
        write(command + "\n");
        return readLine();
    }
};

// The volume is let go of when nobody has it any more.
TEST_F(MountSystem, ContainersShareAMount) {
    const std::string directory = served_->directory();
    Container one, other;
    EXPECT_EQ(one.answer("cd " + directory + "; echo content > file; cat file"), "content");
    EXPECT_EQ(readFile(*this / "file"), "content\n");
    EXPECT_EQ(other.answer("cd " + directory + "; mv file moved; ls"), "moved");
    EXPECT_EQ(one.answer("cat moved"), "content");
    EXPECT_EQ(one.answer("cd /; umount " + directory + "; echo $(ls -A " + directory + ")"), "");
    EXPECT_EQ(other.answer("cat moved"), "content");
    const ProcessResult left = run({TAVELIN_PROGRAM, "umount", directory});
    EXPECT_EQ(left.status, 1) << left.describe();
    EXPECT_NE(left.err.find("mounted elsewhere"), std::string::npos) << left.describe();
    EXPECT_EQ(other.answer("echo last >> moved; cd /; umount " + directory + "; echo $?"), "0");
    EXPECT_EQ(served_->awaitEnd(), 0);
    EXPECT_EQ(volume_->cat("moved"), "content\nlast\n");

    // What one has mounted for itself nobody else may change.
    const std::string image = volume_->image(), program = TAVELIN_PROGRAM;
    EXPECT_EQ(one.answer(program + " mount " + image + " " + directory + "; echo $?"), "0");
    EXPECT_FALSE(fusehost::findMount(directory));
    EXPECT_EQ(run({program, "mkdir", image, "folder"}).status, 1);
    EXPECT_EQ(other.answer(program + " mount " + image + " /mnt 2>/dev/null; echo $?"), "1");
    EXPECT_EQ(one.answer(program + " umount " + directory + "; echo $?"), "0");
    mount();
}

// Where a mount is not, or not quite, what was asked for.
TEST_F(MountSystem, SaysWhatIsInTheWay) {
    const auto tavelin = [](std::vector<std::string> words) {
        words.insert(words.begin(), TAVELIN_PROGRAM);
        return run(words);
    };
    const std::string directory = served_->directory(), image = volume_->image();
    ::kill(served_->server(), SIGKILL);
    EXPECT_EQ(served_->awaitEnd(), 128 + SIGKILL);
    const ProcessResult dead = tavelin({"mount", image, directory});
    EXPECT_EQ(dead.status, 1);
    EXPECT_NE(dead.err.find("whose server has ended"), std::string::npos) << dead.describe();
    EXPECT_EQ(tavelin({"umount", directory}).status, 0);

    std::string device = runOrThrow({"losetup", "--find", "--show", "--read-only", image});
    device.pop_back();
    const ProcessResult readOnly = tavelin({"mount", device, directory});
    EXPECT_EQ(readOnly.status, 0);
    EXPECT_NE(readOnly.err.find("mounted read-only"), std::string::npos) << readOnly.describe();
    EXPECT_EQ(errorOf(::mkdir((directory + "/folder").c_str(), 0777)), EROFS);
    EXPECT_EQ(tavelin({"umount", directory}).status, 0);
    runOrThrow({"losetup", "-d", device});
}

// A user's own mount is the user's alone. The namespace has a /dev/fuse that users may open.
TEST_F(MountSystem, AUsersMountIsTheUsers) {
    served_.reset();
    const TempDirectory mountPoint, devices;
    fs::permissions(volume_->directory().path(), fs::perms(0777));
    fs::permissions(volume_->image(), fs::perms(0666));
    ASSERT_EQ(::chown(mountPoint.path().c_str(), 65534, 65534), 0);
    const ProcessResult result = inNamespace(
        R"(mount -t tmpfs -o dev,mode=755 tmpfs "$4" && mknod -m 666 "$4/fuse" c 10 229 &&
           mount --bind "$4/fuse" /dev/fuse || exit 77
           as_user() { setpriv --reuid=65534 --regid=65534 --clear-groups "$@"; }
           as_user true || exit 77
           as_user "$1" mount -o permissions "$2" "$3"
           if [ -e "$3/." ]; then echo "root gets in"; fi
           cd "$3" 2>/dev/null && exit 1
           as_user bash -euc 'cd "$1"
               printf "#!/bin/sh\necho ran\n" > program
               chmod 4750 program
               ./program
               mkfifo fifo
               stat -c "%a %u" program
               if chown 0 program 2>/dev/null; then exit 1; fi
               if mknod device c 1 3 2>/dev/null; then exit 1; fi' user "$3"
           findmnt -n -o OPTIONS "$3" | grep -o nosuid,nodev
           as_user "$1" umount "$3"
           as_user "$1" mount "$2" "$3"
           server=$(pgrep -o -f "mount $2")
           kill -TERM "$server"
           tail --pid="$server" -f /dev/null
           findmnt "$3" || echo unmounted
           chmod 444 "$2"
           as_user "$1" mount "$2" "$3" 2>&1 | grep -o "may not write.*"
           if as_user touch "$3/program" 2>/dev/null; then exit 1; fi
           as_user ls "$3"
           as_user "$1" umount "$3")",
        {TAVELIN_PROGRAM, volume_->image(), mountPoint.path(), devices.path()});
    if (result.status == 77) {
        GTEST_SKIP() << "there is no /dev/fuse for users: " << result.err;
    }
    EXPECT_EQ(result.status, 0) << result.describe();
    EXPECT_EQ(result.out, "ran\n4750 65534\nnosuid,nodev\nunmounted\n"
                          "may not write to it; mounted read-only\nfifo\nprogram\n");
}

} // namespace
} // namespace tavelin::test
