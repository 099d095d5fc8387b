#include "hosts/fuse/sandbox/sandbox.hpp"

#include "hosts/fuse/sandbox/landlock.hpp"
#include "hosts/fuse/sandbox/system_call_filter.hpp"
#include "platform/error_numbers.hpp"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cerrno>
#include <csignal>
#include <cstdint>
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
uint64_t argument(const ucontext_t& call, int position) {
    constexpr int kRegisters[] = {REG_RDI, REG_RSI, REG_RDX};
    return static_cast<uint64_t>(call.uc_mcontext.gregs[kRegisters[position]]);
}
void setResult(ucontext_t& call, int64_t result) {
    call.uc_mcontext.gregs[REG_RAX] = result;
}
#elif defined(__aarch64__)
uint64_t argument(const ucontext_t& call, int position) {
    return call.uc_mcontext.regs[position];
}
void setResult(ucontext_t& call, int64_t result) {
    call.uc_mcontext.regs[0] = static_cast<uint64_t>(result);
}
#else
uint64_t argument(const ucontext_t& /*call*/, int /*position*/) {
    return 0; // nobody asks
}
void setResult(ucontext_t& /*call*/, int64_t /*result*/) {}
#endif

// Of openat and newfstatat alike. A pointer that leads nowhere ends the process as well.
std::string_view pathOf(const ucontext_t& call) {
    const auto* const path = std::bit_cast<const char*>(argument(call, 1));
    return path == nullptr ? std::string_view("?") : std::string_view(path);
}

// Answers what the C library may ask for. False for anything else.
bool answerLibrary(int number, ucontext_t& call) {
    if constexpr (!kHandlerSeesArguments) {
        return false;
    }
    if (number == SYS_openat && std::ranges::count(kLibraryFiles, pathOf(call)) != 0) {
        setResult(call, -EACCES);
        return true;
    }
    // fstat() of older C libraries. A filter sees no path, by which this would tell of every file.
    if (number == SYS_newfstatat && pathOf(call).empty()) {
        const long result = ::syscall(SYS_fstat, argument(call, 0), argument(call, 2));
        setResult(call, result == 0 ? 0 : -errno);
        return true;
    }
    return false;
}

// Runs in whichever thread made the call, so it makes system calls only.
void judge(int /*signal*/, siginfo_t* what, void* context) {
    auto& call = *static_cast<ucontext_t*>(context);
    const int before = errno;
    if (answerLibrary(what->si_syscall, call)) {
        errno = before; // the interrupted code sets its own
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
