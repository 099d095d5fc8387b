// What a process in the sandbox of a mount's server can no longer do, and what is told of it.
#include "diagnostics/event_log.hpp"
#include "hosts/fuse/mount/broker.hpp"
#include "hosts/fuse/mount/broker_process.hpp"
#include "hosts/fuse/sandbox/landlock.hpp"
#include "hosts/fuse/sandbox/sandbox.hpp"
#include "hosts/fuse/sandbox/system_call_filter.hpp"
#include "support/temp_directory.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <netinet/in.h>
#include <optional>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace tavelin::test {
namespace {

using namespace fusehost;

// Runs `work` in a child process; its wait status.
int statusOfChild(const std::function<int()>& work) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(work());
    }
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    return status;
}

// What the descriptor has until everybody has closed the other end.
std::string restOf(const FileDescriptor& reading) {
    std::string text;
    char piece[256];
    while (const size_t got = reading.readSome(piece, sizeof piece).bytes) {
        text.append(piece, got);
    }
    return text;
}

class Sandbox : public testing::Test {
  protected:
    // Enters the sandbox as a server does, its log going through a broker, and runs `work` there.
    // The child's wait status, once the broker has ended as well; its log is read by log().
    int inside(const std::function<int()>& work) const {
        return outside([&](Broker& broker) {
            const std::string missing = enterSandbox(broker.witness()).shortcomings();
            return missing.empty() ? work() : kIncomplete;
        });
    }
    // The same without the sandbox.
    int outside(const std::function<int(Broker&)>& work) const {
        int ends[2];
        EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
        const FileDescriptor reading(ends[0]);
        FileDescriptor writing(ends[1]);
        const int status = statusOfChild([&] {
            ::dup2(writing.get(), STDERR_FILENO); // the broker keeps it to its end
            ::setenv("TAVELIN_GROUP_CONTAINER", group_.path().c_str(), 1);
            MountRequest request;
            request.image = "/image";
            request.directory = "/directory";
            const FileDescriptor image("/dev/null", O_RDWR);
            Broker broker(request, image.get());
            return work(broker);
        });
        writing.reset();
        (void)restOf(reading);
        return status;
    }
    std::string log() const { return readFile(group_ / "Library/Logs/module.log"); }
    bool isThere() const {
        const int status = inside([] { return 0; });
        return WIFEXITED(status) && WEXITSTATUS(status) != kIncomplete;
    }

    static constexpr int kIncomplete = 99;

  private:
    const TempDirectory group_;
};

struct Attempt {
    const char* name;
    std::function<void()> make;
    const char* alternative = nullptr; // the C library's other way
};

const std::vector<Attempt>& attempts() {
    const auto call = [](auto... words) { return [words...] { (void)::syscall(words...); }; };
    static const std::vector<Attempt> all = {
        {"execve", [] { ::execl("/bin/true", "true", nullptr); }},
        {"execveat", call(SYS_execveat, -1, "/bin/true", nullptr, nullptr, 0)},
        {"openat", [] { (void)!::open("/etc/hostname", O_RDONLY); }, "open"},
        {"openat2", call(SYS_openat2, AT_FDCWD, "/etc/hostname", nullptr, 0)},
        {"open_by_handle_at", call(SYS_open_by_handle_at, 0, nullptr, 0)},
        {"socket", [] { (void)::socket(AF_INET, SOCK_STREAM, 0); }},
        {"connect", [] { (void)::connect(0, nullptr, 0); }},
        {"bind", [] { (void)::bind(0, nullptr, 0); }},
        // Not fork(), in which newer C libraries hold the signal back that is told.
        {"clone", call(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, nullptr)},
        {"ptrace", [] { (void)::ptrace(PTRACE_ATTACH, 1, nullptr, nullptr); }},
        {"kill", [] { (void)::kill(::getppid(), 0); }},
        {"fcntl", [] { (void)::fcntl(0, F_SETOWN, ::getppid()); }},
        // The kernel takes the lower half of the number.
        {"rt_sigaction", call(SYS_rt_sigaction, (1L << 32) | SIGSYS, nullptr, nullptr, 8L)},
        {"mmap",
         [] {
             (void)::mmap(nullptr, 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
         }},
        {"madvise", call(SYS_madvise, 0, 4096, (1L << 32) | MADV_HWPOISON)},
        {"madvise", [] { (void)::madvise(nullptr, 4096, MADV_HWPOISON + 1); }},
        {"mount", [] { (void)::mount("a", "b", "c", 0, nullptr); }},
        {"umount2", [] { (void)::umount2("/nonexistent", 0); }},
        {"setresuid", call(SYS_setresuid, 0, 0, 0)},
        {"io_uring_setup", call(SYS_io_uring_setup, 1, nullptr)},
        {"newfstatat",
         [] {
             struct stat status {};
             (void)::syscall(SYS_newfstatat, AT_FDCWD, "/etc/hostname", &status, AT_EMPTY_PATH);
         }},
        {"unlinkat", call(SYS_unlinkat, AT_FDCWD, "/nonexistent", 0)},
    };
    return all;
}

TEST_F(Sandbox, EndsWhoeverReachesOutOfItAndSaysByWhat) {
    if (!isThere()) {
        GTEST_SKIP() << "not in this build or kernel";
    }
    for (const Attempt& attempt : attempts()) {
        // In a thread of its own: the filter is every thread's, and so is the handler.
        const int status = inside([&] {
            std::thread(attempt.make).join();
            return 0;
        });
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGSYS) << attempt.name << status;
        const std::string lines = log();
        const std::string last = lines.substr(lines.rfind('\n', lines.size() - 2) + 1);
        const auto names = [&last](const char* call) {
            return last.find(std::string("\"system_call\":\"") + call + "\"") != std::string::npos;
        };
        EXPECT_TRUE(names(attempt.name) || (attempt.alternative && names(attempt.alternative)))
            << attempt.name << " is told as " << last;
        EXPECT_NE(last.find("\"directory\":\"/directory\""), std::string::npos) << last;
    }
}

TEST_F(Sandbox, LetsServingGoOn) {
    if (!isThere()) {
        GTEST_SKIP() << "not in this build or kernel";
    }
    const int status = inside([] {
        // A system call that a newer C library might try first.
        constexpr long kUnknown = 100'000;
        if (::syscall(kUnknown) != -1 || errno != ENOSYS) {
            return 1;
        }
        // The C library looks for these when it makes an arena or gives memory back.
        if (::open("/proc/sys/vm/overcommit_memory", O_RDONLY) != -1 || errno != EACCES ||
            ::get_nprocs() < 1) {
            return 3;
        }
        void* const page = ::mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (::madvise(page, 4096, MADV_DONTNEED) != 0 || ::madvise(page, 4096, 32) != -1 ||
            errno != ENOSYS) {
            return 5;
        }
        struct stat errors {};
        if (::fstat(STDERR_FILENO, &errors) != 0 || !S_ISFIFO(errors.st_mode) ||
            ::fstat(-1, &errors) != -1 || errno != EBADF) {
            return 4;
        }
        try {
            throw std::runtime_error(std::string(1 << 20, 'x'));
        } catch (const std::exception& failure) {
            return std::string_view(failure.what()).size() == 1 << 20 ? 0 : 2;
        }
    });
    EXPECT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

// The broker is sent it in pieces.
TEST_F(Sandbox, ItsLogHasLinesOfAnyLength) {
    const int status = inside([] {
        for (const char letter : {'a', 'b'}) {
            events().event("long", {{"text", std::string(100'000, letter)}});
        }
        return 0;
    });
    if (WIFEXITED(status) && WEXITSTATUS(status) == kIncomplete) {
        GTEST_SKIP() << "not in this build or kernel";
    }
    for (const char letter : {'a', 'b'}) {
        EXPECT_NE(log().find('"' + std::string(100'000, letter) + "\"}\n"), std::string::npos);
    }
}

// As when the system has no memory left: the broker may take no more than it has.
TEST_F(Sandbox, ABrokerWithoutMemoryDropsALineAndNothingElse) {
    if (!kSandboxInBuild) {
        GTEST_SKIP() << "sanitizers do not bear it";
    }
    const int status = outside([](Broker& broker) {
        const std::string id = std::to_string(::getpid());
        const pid_t process = std::stoi(readFile("/proc/" + id + "/task/" + id + "/children"));
        const rlimit nothing{1, 1};
        // After its first answer it has both of its threads.
        if (broker.unmount({}) != 0 || ::prlimit(process, RLIMIT_AS, &nothing, nullptr) != 0) {
            return 1;
        }
        events().event("long", {{"text", std::string(150'000, 'x')}});
        events().event("short");
        return broker.unmount({});
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(log().find("\"long\""), std::string::npos);
    EXPECT_NE(log().find("\"short\""), std::string::npos);
}

// A server in wrong hands may send any bytes.
TEST(BrokerProcess, TakesNoCallButThoseThatItKnows) {
    auto [ourLines, itsLines] = MessageSocket::makePair();
    auto [ourCalls, itsCalls] = MessageSocket::makePair();
    const pid_t child = ::fork();
    if (child == 0) {
        MountRequest request;
        const FileDescriptor image("/dev/null", O_RDWR);
        broker::serve(request, image.get(), itsLines, itsCalls);
    }
    const struct {
        broker::Call call;
        int32_t error;
    } kRows[] = {
        {{.kind = static_cast<broker::Call::Kind>(7), .served = 9}, EINVAL},
        {{.kind = broker::Call::Kind::unmount, .lazily = 0x55, .served = 0xff}, 0},
    };
    for (const auto& row : kRows) {
        ASSERT_TRUE(
            ourCalls.send({reinterpret_cast<const char*>(&row.call), sizeof row.call}, true));
        MessageSocket::Message answer;
        ASSERT_TRUE(ourCalls.receive(answer));
        broker::Result result;
        ASSERT_EQ(answer.bytes.size(), sizeof result) << answer.bytes;
        std::memcpy(&result, answer.bytes.data(), sizeof result);
        EXPECT_EQ(result.error, row.error);
    }
    const char goodbye = static_cast<char>(broker::Line::goodbye);
    EXPECT_TRUE(ourLines.send({&goodbye, 1}, true));
    { const MessageSocket hungUp = std::move(ourCalls); }
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

// Landlock alone, as where a kernel has no filters.
TEST_F(Sandbox, GivesUpFilesThatAreNotOpen) {
    const int status = statusOfChild([] {
        const FileDescriptor held("/proc/self/status", O_RDONLY);
        ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
        if (giveUpFiles() != 0) {
            return kIncomplete;
        }
        const auto refused = [](int result) { return result == -1 && errno == EACCES; };
        char byte = 0;
        return held.readAt(&byte, 1, 0).bytes == 1 &&
                       refused(::open("/proc/self/status", O_RDONLY)) &&
                       refused(::open("/tmp/new", O_WRONLY | O_CREAT, 0600)) &&
                       refused(::execl("/bin/true", "true", nullptr))
                   ? 0
                   : 1;
    });
    if (WIFEXITED(status) && WEXITSTATUS(status) == kIncomplete) {
        GTEST_SKIP() << "this kernel has no Landlock";
    }
    EXPECT_EQ(status, 0);
}

} // namespace
} // namespace tavelin::test
