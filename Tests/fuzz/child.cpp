#include "fuzz/child.hpp"

#include "fuzz/hostile_image.hpp"
#include "support/replaced_services.hpp"

#include <array>
#include <csignal>
#include <cstring>
#include <execinfo.h>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

// The address sanitizer's, where there is one.
extern "C" int __lsan_do_recoverable_leak_check() __attribute__((weak));

namespace tavelin::test {

namespace {

constexpr rlim_t kSeconds = 20;       // of processor time, for one input, under the sanitizers
constexpr unsigned kSecondsMax = 120; // on a busy machine: threads that wait for each other
constexpr std::string_view kLibrary = "libntfs-3g.so";

// Prints the stack as the sanitizers do, one frame a line, innermost first.
void reportSignal(int signal) {
    std::array<void*, 64> frames{};
    const int count = ::backtrace(frames.data(), static_cast<int>(frames.size()));
    ::backtrace_symbols_fd(frames.data(), count, STDERR_FILENO);
    ::signal(signal, SIG_DFL);
    ::raise(signal);
}

[[noreturn]] void beChild(std::span<const std::uint8_t> bytes, int report) {
    ::dup2(report, STDERR_FILENO);
    const rlimit seconds{kSeconds, kSeconds + 5};
    ::setrlimit(RLIMIT_CPU, &seconds);
    ::alarm(kSecondsMax);
    const rlimit noCore{0, 0};
    ::setrlimit(RLIMIT_CORE, &noCore);
    for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGXCPU, SIGALRM}) {
        struct sigaction old {};
        // A sanitizer's own handler says more.
        if (::sigaction(signal, nullptr, &old) == 0 && old.sa_handler == SIG_DFL) {
            ::signal(signal, reportSignal);
        }
    }
    {
        const ReplacedServices services;
        InputReader input(bytes);
        MappedImage volume = damagedVolume(input);
        sendRequests(std::move(volume), input);
    }
    const bool leaks =
        __lsan_do_recoverable_leak_check != nullptr && __lsan_do_recoverable_leak_check() != 0;
    ::_exit(leaks ? 1 : 0);
}

std::string readAll(int descriptor) {
    std::string text;
    std::array<char, 4096> buffer{};
    for (;;) {
        const ssize_t count = ::read(descriptor, buffer.data(), buffer.size());
        if (count <= 0) {
            return text;
        }
        text.append(buffer.data(), static_cast<std::size_t>(count));
    }
}

bool isFrame(std::string_view line) {
    return line.find("[0x") != line.npos || line.find("#") != line.npos;
}

// Frames of the machinery above the one that matters: signal handlers, the C library, sanitizers.
bool isMachinery(std::string_view line) {
    for (const std::string_view name :
         {"libc.so", "libgcc", "libstdc++", "reportSignal", "__asan", "__ubsan", "__sanitizer",
          "__interceptor", "in memcpy", "in memmove", "in memset", "in free", "in malloc",
          "in calloc", "in realloc", "in backtrace", "in abort", "in raise", "vdso"}) {
        if (line.find(name) != line.npos) {
            return true;
        }
    }
    return false;
}

// "… in ntfs_attr_pread (/lib/…" or "…so.89(ntfs_attr_pread+0x…": the function, as far as known.
std::string functionIn(const std::string& line) {
    const std::size_t in = line.find(" in ");
    if (in != std::string::npos) {
        return line.substr(in + 4, line.find(' ', in + 4) - in - 4);
    }
    const std::size_t open = line.find(std::string(kLibrary));
    const std::size_t begin = line.find('(', open);
    return begin == std::string::npos ? line : line.substr(begin + 1, line.find(')') - begin - 1);
}

} // namespace

ChildResult culpritOf(std::string report) {
    ChildResult result{ChildResult::End::inOurs, "no stack", std::move(report)};
    std::istringstream lines(result.report);
    for (std::string line; std::getline(lines, line);) {
        if (isFrame(line) && !isMachinery(line)) {
            const bool inLibrary = line.find(kLibrary) != std::string::npos;
            result.end = inLibrary ? ChildResult::End::inLibrary : ChildResult::End::inOurs;
            result.where = inLibrary ? functionIn(line) : line;
            return result;
        }
    }
    return result; // ours, until somebody shows otherwise
}

ChildResult runInChild(std::span<const std::uint8_t> input) {
    (void)seedVolumes(); // before the fork, so that children share them
    int pipe[2];
    if (::pipe(pipe) != 0) {
        throw std::runtime_error("pipe");
    }
    const pid_t child = ::fork();
    if (child < 0) {
        throw std::runtime_error("fork");
    }
    if (child == 0) {
        ::close(pipe[0]);
        beChild(input, pipe[1]);
    }
    ::close(pipe[1]);
    std::string report = readAll(pipe[0]);
    ::close(pipe[0]);
    int status = 0;
    if (::waitpid(child, &status, 0) != child) {
        throw std::runtime_error("waitpid");
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        const int signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
        // Processor time that runs out has a stack like any fault; threads that wait have none.
        if (signal == SIGALRM || signal == SIGKILL) {
            return {ChildResult::End::inOurs, "no end", std::move(report)};
        }
        return culpritOf(std::move(report));
    }
    return {ChildResult::End::well, "", std::move(report)};
}

} // namespace tavelin::test
