#include "hosts/fuse/sandbox/sandbox.hpp"

#include "hosts/fuse/sandbox/landlock.hpp"
#include "hosts/fuse/sandbox/system_call_filter.hpp"
#include "platform/error_numbers.hpp"

#include <atomic>
#include <bit>
#include <cerrno>
#include <csignal>
#include <string_view>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/ucontext.h>
#include <unistd.h>

namespace tavelin::fusehost {

namespace {

std::atomic<int> witnessSocket{-1};

// Files that the C library looks into by itself, at moments that nobody can foresee: malloc when it
// gives memory back or makes another arena, threads for the extent of a stack. It does without.
constexpr std::string_view kLibraryFiles[] = {
    "/proc/sys/vm/overcommit_memory",
    "/sys/devices/system/cpu/online",
    "/proc/stat",
    "/proc/self/maps",
    "/etc/localtime",
};

#if defined(__x86_64__)
constexpr int kOpenCall = SYS_openat; // the C library's way to open since long ago
const char* pathOfOpen(const ucontext_t& call) {
    return std::bit_cast<const char*>(call.uc_mcontext.gregs[REG_RSI]);
}
void setResult(ucontext_t& call, int error) {
    call.uc_mcontext.gregs[REG_RAX] = -error;
}
#elif defined(__aarch64__)
constexpr int kOpenCall = SYS_openat;
const char* pathOfOpen(const ucontext_t& call) {
    return std::bit_cast<const char*>(call.uc_mcontext.regs[1]);
}
void setResult(ucontext_t& call, int error) {
    call.uc_mcontext.regs[0] = static_cast<unsigned long long>(-error);
}
#else
constexpr int kOpenCall = -1; // where the registers are is not known: every such call is fatal
const char* pathOfOpen(const ucontext_t&) {
    return "";
}
void setResult(ucontext_t&, int) {}
#endif

bool isOfLibrary(const ucontext_t& call) {
    const char* const path = pathOfOpen(call);
    if (path == nullptr) {
        return false;
    }
    for (const std::string_view file : kLibraryFiles) {
        if (path == file) {
            return true;
        }
    }
    return false;
}

// Runs in whichever thread made the call, so it makes system calls only.
void judge(int /*signal*/, siginfo_t* what, void* context) {
    auto& call = *static_cast<ucontext_t*>(context);
    if (what->si_syscall == kOpenCall && isOfLibrary(call)) {
        setResult(call, EACCES);
        return;
    }
    const ForbiddenCall last{.systemCall = what->si_syscall};
    (void)::send(witnessSocket.load(), &last, sizeof last, MSG_NOSIGNAL | MSG_DONTWAIT);
    // The signal is blocked in its handler. Another forbidden call then ends the process by it.
    (void)::syscall(SYS_execve, nullptr, nullptr, nullptr);
}

int catchForbiddenCalls(int witness) noexcept {
    witnessSocket.store(witness);
    struct sigaction action {};
    action.sa_sigaction = judge;
    action.sa_flags = SA_SIGINFO;
    return ::sigaction(SIGSYS, &action, nullptr) == 0 ? 0 : errno;
}

} // namespace

SandboxState enterSandbox(int witness) noexcept {
    if constexpr (!kSandboxInBuild) {
        return {.noNewPrivileges = ENOTSUP, .files = ENOTSUP, .systemCalls = ENOTSUP};
    }
    SandboxState state;
    state.noNewPrivileges = ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 ? 0 : errno;
    state.files = giveUpFiles();
    state.systemCalls = catchForbiddenCalls(witness);
    if (state.systemCalls == 0) {
        state.systemCalls = loadSystemCallFilter(); // last: it forbids what the others need
    }
    return state;
}

std::string SandboxState::shortcomings() const {
    std::string text;
    const auto add = [&](int error, const char* what) {
        if (error != 0) {
            text += std::string(text.empty() ? "the sandbox is not complete: no " : "; no ") +
                    what + " (" + errorText(fromHost(error)) + ")";
        }
    };
    add(noNewPrivileges, "no_new_privs");
    add(files, "Landlock");
    add(systemCalls, "system call filter");
    return text;
}

} // namespace tavelin::fusehost
