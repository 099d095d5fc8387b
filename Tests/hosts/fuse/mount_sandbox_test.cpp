// The sandbox around the server of a real mount, and the broker outside of it.
#include "diagnostics/event_log.hpp"
#include "hosts/fuse/mount/mount_table.hpp"
#include "hosts/fuse/sandbox/sandbox.hpp"
#include "hosts/fuse/served_volume.hpp"
#include "hosts/fuse/watches.hpp"
#include "support/own_group.hpp"
#include "support/run_process.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <seccomp.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tavelin::test {
namespace {

namespace fs = std::filesystem;

class MountSandbox : public MountTest {
  protected:
    void SetUp() override {
        if (!fusehost::kSandboxInBuild) {
            GTEST_SKIP() << "not in this build";
        }
        MountTest::SetUp();
    }

    static fs::path logFile() { return ownGroup.directory / "Library/Logs/module.log"; }
    static bool tells(const std::string& words) {
        return readFile(logFile()).find(words) != std::string::npos;
    }
};

TEST_F(MountSandbox, IsAroundEveryThreadUnlessAskedNotToBe) {
    for (const bool wanted : {true, false}) {
        mount(wanted ? "" : "no_sandbox");
        writeFile(*this / "file", "content"); // served by then, with all threads
        const fs::path tasks = "/proc/" + std::to_string(served_->server()) + "/task";
        for (const fs::directory_entry& task : fs::directory_iterator(tasks)) {
            const std::string status = readFile(task.path() / "status");
            const bool privileges = status.find("NoNewPrivs:\t1") != std::string::npos;
            const bool filter = status.find("Seccomp:\t2") != std::string::npos;
            EXPECT_EQ(privileges, wanted) << status;
            EXPECT_EQ(filter, wanted) << status;
        }
    }
}

// What is typed is not the server's to read, although it prints there.
TEST_F(MountSandbox, ReadsNothingFromItsTerminal) {
    served_.reset();
    const TempDirectory directory;
    const std::string image = volume_->image();
    MountTableWatch mounts;
    int terminal = -1;
    const pid_t server = ::forkpty(&terminal, nullptr, nullptr, nullptr);
    if (server == 0) {
        ::execl(TAVELIN_PROGRAM, "tavelin", "mount", "--foreground", image.c_str(),
                directory.path().c_str(), nullptr);
        ::_exit(1);
    }
    if (server == -1) {
        GTEST_SKIP() << "there are no terminals";
    }
    const FileDescriptor held(terminal);
    while (!fusehost::findMount(directory.path())) {
        ASSERT_TRUE(mounts.await());
    }
    const fs::path process = "/proc/" + std::to_string(server);
    EXPECT_EQ(fs::read_symlink(process / "fd/0"), "/dev/null");
    for (const char* printing : {"1", "2"}) {
        EXPECT_TRUE(fs::read_symlink(process / "fd" / printing).string().starts_with("/dev/pts/"));
        const std::string state = readFile(process / "fdinfo" / printing);
        unsigned flags = 0;
        ASSERT_EQ(std::sscanf(state.c_str(), "pos: %*u flags: %o", &flags), 1) << state;
        EXPECT_EQ(flags & O_ACCMODE, static_cast<unsigned>(O_WRONLY)) << state;
    }
    EXPECT_EQ(run({TAVELIN_PROGRAM, "umount", directory.path()}).status, 0);
    int status = -1;
    EXPECT_EQ(::waitpid(server, &status, 0), server);
    EXPECT_EQ(status, 0);
    mount();
}

// The mount needs it for its beginning and its end, and its files never.
TEST_F(MountSandbox, IsServedOnWithoutItsBroker) {
    for (const bool bySignal : {false, true}) {
        writeFile(*this / "file", "content"); // served by then
        const std::string id = std::to_string(served_->server());
        const pid_t broker = std::stoi(readFile("/proc/" + id + "/task/" + id + "/children"));
        ASSERT_EQ(readFile("/proc/" + std::to_string(broker) + "/comm"), "tavelin-broker\n");
        const FileDescriptor end(static_cast<int>(::syscall(SYS_pidfd_open, broker, 0)));
        ::kill(broker, SIGKILL);
        pollfd ended{end.get(), POLLIN, 0};
        ASSERT_EQ(::poll(&ended, 1, -1), 1);
        writeFile(*this / "file", id);
        EXPECT_EQ(::fsync(Descriptor(*this / "file", O_RDONLY)), 0);
        if (bySignal) { // whoever sent it finds the mount dead, and no file lost
            ::kill(served_->server(), SIGTERM);
            EXPECT_EQ(served_->awaitEnd(), 0);
            EXPECT_NE(served_->printed().find("cannot be unmounted"), std::string::npos);
            EXPECT_EQ(run({TAVELIN_PROGRAM, "umount", served_->directory()}).status, 0);
        } else {
            EXPECT_EQ(served_->unmount(), 0);
        }
        EXPECT_EQ(volume_->cat("file"), id);
        mount();
    }
}

// The log is full when the volume is mounted.
TEST_F(MountSandbox, ItsLogRotates) {
    served_.reset();
    const fs::path previous = logFile().string() + ".1";
    fs::remove(previous);
    writeFile(logFile(), std::string(EventLog::kDefaultMaxBytes - 1, 'x') + '\n');
    mount();
    EXPECT_EQ(served_->unmount(), 0);
    EXPECT_TRUE(fs::exists(previous));
    EXPECT_TRUE(tells("\"ev\":\"activate\"")) << readFile(logFile());
    EXPECT_TRUE(tells("\"ev\":\"unload\"")) << "the last line that the server has";
    mount();
}

#if defined(__x86_64__)

// Has a thread of the server make a system call, as somebody would who had taken it over. The
// thread waits for others in a system call.
void divert(pid_t server, long call) {
    ASSERT_EQ(::ptrace(PTRACE_SEIZE, server, nullptr, nullptr), 0);
    ASSERT_EQ(::ptrace(PTRACE_INTERRUPT, server, nullptr, nullptr), 0);
    ASSERT_EQ(::waitpid(server, nullptr, __WALL), server);
    user_regs_struct registers{};
    ASSERT_EQ(::ptrace(PTRACE_GETREGS, server, nullptr, &registers), 0);
    registers.rip -= 2; // the instruction that made the call it waits in
    registers.rax = static_cast<unsigned long long>(call);
    registers.orig_rax = ~0ull;
    registers.rdi = registers.rsi = registers.rdx = 0;
    ASSERT_EQ(::ptrace(PTRACE_SETREGS, server, nullptr, &registers), 0);
    ASSERT_EQ(::ptrace(PTRACE_DETACH, server, nullptr, nullptr), 0);
}

TEST_F(MountSandbox, EndsAServerThatIsTakenOverAndSaysWhy) {
    const std::pair<long, const char*> calls[] = {
        {SYS_openat, "openat"}, {SYS_execve, "execve"}, {SYS_connect, "connect"}};
    for (const auto& [call, name] : calls) {
        writeFile(*this / "file", name);
        ChangeWatch log(logFile());
        divert(served_->server(), call);
        EXPECT_EQ(served_->awaitEnd(), 128 + SIGSYS);
        const std::string directory = served_->directory();
        while (!tells(std::string("\"system_call\":\"") + name)) {
            ASSERT_TRUE(log.await()) << readFile(logFile());
        }
        // As after any crash: programs must not write into the directory below.
        EXPECT_TRUE(fusehost::findMount(directory));
        EXPECT_EQ(run({TAVELIN_PROGRAM, "umount", directory}).status, 0);
        mount();
    }
}

#endif

// A kernel without Landlock and without filters, played by a filter in front of it.
TEST_F(MountSandbox, IsLeftOutWithAWordWhereTheKernelHasNone) {
    served_.reset();
    const TempDirectory directory;
    const std::string image = volume_->image();
    const pid_t child = ::fork();
    if (child == 0) {
        const scmp_filter_ctx kernel = seccomp_init(SCMP_ACT_ALLOW);
        for (const int call : {SCMP_SYS(landlock_create_ruleset), SCMP_SYS(seccomp)}) {
            seccomp_rule_add(kernel, SCMP_ACT_ERRNO(ENOSYS), call, 0);
        }
        const scmp_arg_cmp filters{
            .arg = 0, .op = SCMP_CMP_EQ, .datum_a = PR_SET_SECCOMP, .datum_b = 0};
        seccomp_rule_add_array(kernel, SCMP_ACT_ERRNO(EINVAL), SCMP_SYS(prctl), 1, &filters);
        if (seccomp_load(kernel) == 0) {
            ::execl(TAVELIN_PROGRAM, "tavelin", "mount", image.c_str(), directory.path().c_str(),
                    nullptr);
        }
        ::_exit(1);
    }
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(tells("\"ev\":\"sandbox\",\"ok\":false")) << readFile(logFile());
    EXPECT_TRUE(tells("no Landlock (")) << readFile(logFile());
    EXPECT_TRUE(tells("no system call filter (")) << readFile(logFile());
    EXPECT_FALSE(tells("no no_new_privs (")) << readFile(logFile());
    EXPECT_EQ(run({TAVELIN_PROGRAM, "umount", directory.path()}).status, 0);
    mount();
}

} // namespace
} // namespace tavelin::test
