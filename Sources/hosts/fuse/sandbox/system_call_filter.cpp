#include "hosts/fuse/sandbox/system_call_filter.hpp"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <initializer_list>
#include <linux/fs.h>
#include <memory>
#include <sched.h>
#include <seccomp.h>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>
#include <utility>

namespace tavelin::fusehost {

namespace {

// Names, each with a space before it. Those that a machine or this libseccomp lacks are left out.
constexpr std::string_view kAllowed =
    // The kernel's requests and the image.
    " read readv pread64 preadv preadv2 write writev pwrite64 pwritev pwritev2 splice tee vmsplice"
    " lseek _llseek fsync fdatasync sync_file_range fallocate ftruncate ftruncate64 fadvise64"
    " fadvise64_64 fstat fstat64 close close_range dup dup2 dup3 pipe pipe2 eventfd2"
    " poll ppoll ppoll_time64"
    // The broker: its sockets, and its end.
    " sendto sendmsg recvfrom recvmsg wait4 waitid"
    // Memory and threads.
    " brk munmap mremap mlock munlock futex futex_time64 set_robust_list set_tid_address"
    " rseq membarrier sched_yield sched_getaffinity getcpu exit exit_group restart_syscall"
    // Signals, clocks and what a process may ask of itself.
    " rt_sigprocmask rt_sigreturn sigreturn rt_sigpending sigaltstack getpid gettid getuid getuid32"
    " geteuid geteuid32 getgid getgid32 getegid getegid32 clock_gettime clock_gettime64"
    " clock_getres clock_getres_time64 clock_nanosleep clock_nanosleep_time64 nanosleep"
    " gettimeofday time times getrandom getrusage getrlimit ugetrlimit sysinfo uname";

constexpr std::string_view kFatal =
    // Files that are not open yet.
    " open openat openat2 creat open_by_handle_at open_tree memfd_create memfd_secret mknod mknodat"
    " link linkat symlink symlinkat rename renameat renameat2 unlink unlinkat mkdir mkdirat rmdir"
    " chmod fchmod fchmodat fchmodat2 chown lchown fchown fchownat truncate chroot"
    // Programs and other processes.
    " execve execveat fork vfork ptrace process_vm_readv process_vm_writev process_madvise"
    " pidfd_open pidfd_getfd pidfd_send_signal kcmp tkill rt_sigqueueinfo rt_tgsigqueueinfo setpgid"
    " setsid"
    // Others, by whatever way.
    " socket socketpair socketcall connect bind listen accept accept4 shmget msgget semget mq_open"
    " io_uring_setup io_uring_enter io_uring_register"
    // The system.
    " mount umount umount2 move_mount fsopen fsconfig fsmount fspick mount_setattr pivot_root"
    " unshare setns swapon swapoff reboot kexec_load kexec_file_load init_module finit_module"
    " delete_module bpf perf_event_open userfaultfd keyctl add_key request_key acct quotactl syslog"
    " sethostname setuid setgid setreuid setregid setresuid setresgid setgroups capset seccomp"
    " personality modify_ldt iopl ioperm";

// Of a device that is open, and of a terminal or file that messages go to. TIOCSTI, by which a
// program types for its user, is not among them.
constexpr unsigned long kRequests[] = {
    TCGETS, BLKDISCARD, BLKGETSIZE64, BLKSSZGET, BLKPBSZGET, BLKROGET,
};

// What threads say of themselves. 0x53564d41 names memory, which newer C libraries do.
constexpr unsigned long kThreadSettings[] = {PR_SET_NAME, PR_GET_NAME, PR_SET_TIMERSLACK,
                                             0x53564d41};

// Of a descriptor. By F_SETOWN and F_SETSIG a pipe could kill other processes.
constexpr int kDescriptorCommands[] = {
    F_GETFD, F_SETFD,     F_GETFL,     F_SETFL,      F_DUPFD,      F_DUPFD_CLOEXEC,
    F_SETLK, F_OFD_SETLK, F_OFD_GETLK, F_GETPIPE_SZ, F_SETPIPE_SZ,
};

// An argument, by its position, compared with a value.
scmp_arg_cmp is(unsigned argument, uint64_t value) {
    return {.arg = argument, .op = SCMP_CMP_EQ, .datum_a = value, .datum_b = 0};
}
scmp_arg_cmp isNot(unsigned argument, uint64_t value) {
    return {.arg = argument, .op = SCMP_CMP_NE, .datum_a = value, .datum_b = 0};
}
scmp_arg_cmp has(unsigned argument, uint64_t bit) {
    return {.arg = argument, .op = SCMP_CMP_MASKED_EQ, .datum_a = bit, .datum_b = bit};
}
// An argument of which the kernel takes the lower half only, whatever the other one is.
scmp_arg_cmp isInt(unsigned argument, int value) {
    return {.arg = argument,
            .op = SCMP_CMP_MASKED_EQ,
            .datum_a = UINT32_MAX,
            .datum_b = static_cast<uint32_t>(value)};
}
scmp_arg_cmp lacks(unsigned argument, uint64_t bit) {
    return {.arg = argument, .op = SCMP_CMP_MASKED_EQ, .datum_a = bit, .datum_b = 0};
}

// Takes rules until one fails, whose errno it keeps.
class Filter {
  public:
    Filter() : context_(seccomp_init(SCMP_ACT_ERRNO(ENOSYS)), seccomp_release) {
        // Calls of another architecture have other numbers.
        set(SCMP_FLTATR_ACT_BADARCH, SCMP_ACT_KILL_PROCESS);
        // A tree instead of a list: calls that are compared last would wait for all others.
        constexpr unsigned kTree = 2;
        set(SCMP_FLTATR_CTL_OPTIMIZE, kTree);
    }

    void allow(const char* call, std::initializer_list<scmp_arg_cmp> when = {}) {
        add(SCMP_ACT_ALLOW, call, when);
    }
    void forbid(const char* call, std::initializer_list<scmp_arg_cmp> when = {}) {
        add(SCMP_ACT_TRAP, call, when);
    }
    int load() {
        if (error_ == 0) {
            note(seccomp_load(context_.get()));
        }
        return error_;
    }

  private:
    void set(scmp_filter_attr attribute, uint32_t value) {
        if (error_ == 0) {
            note(seccomp_attr_set(context_.get(), attribute, value));
        }
    }
    void add(uint32_t action, const char* name, std::initializer_list<scmp_arg_cmp> when) {
        const int call = seccomp_syscall_resolve_name(name);
        if (error_ == 0 && call != __NR_SCMP_ERROR) {
            note(seccomp_rule_add_array(context_.get(), action, call,
                                        static_cast<unsigned>(when.size()), when.begin()));
        }
    }
    void note(int result) {
        if (error_ == 0 && result < 0) {
            error_ = -result;
        }
    }

    const std::unique_ptr<void, void (*)(scmp_filter_ctx)> context_;
    int error_ = context_ ? 0 : ENOMEM;
};

// Calls that depend on an argument: the harmless form is allowed.
void addConditions(Filter& filter) {
    for (const char* const map : {"mmap", "mmap2", "mprotect"}) {
        filter.allow(map, {lacks(2, PROT_EXEC)});
        filter.forbid(map, {has(2, PROT_EXEC)});
    }
    // Advice about memory, which is below 32, and for guard pages of threads. In between is what
    // takes pages from the whole system, if root asks.
    constexpr uint64_t kBeyondAdvice = UINT32_MAX & ~31u;
    constexpr int kSoftOffline = 101, kGuardInstall = 102, kGuardRemove = 103;
    filter.allow("madvise", {lacks(2, kBeyondAdvice)});
    for (const int guard : {kGuardInstall, kGuardRemove}) {
        filter.allow("madvise", {isInt(2, guard)});
    }
    for (const int harm : {MADV_HWPOISON, kSoftOffline}) {
        filter.forbid("madvise", {isInt(2, harm)});
    }
    // Of clone3 the flags cannot be seen; it answers ENOSYS as everything else does, and the C
    // library takes clone.
    filter.allow("clone", {has(0, CLONE_THREAD)});
    filter.forbid("clone", {lacks(0, CLONE_THREAD)});
    const auto self = static_cast<uint64_t>(::getpid());
    for (const char* const send : {"kill", "tgkill"}) {
        filter.allow(send, {is(0, self)});
        filter.forbid(send, {isNot(0, self)});
    }
    for (int signal = 1; signal < NSIG; ++signal) {
        if (signal == SIGSYS) { // which keeps its handler
            filter.forbid("rt_sigaction", {isInt(0, signal)});
        } else {
            filter.allow("rt_sigaction", {isInt(0, signal)});
        }
    }
    for (const char* const control : {"fcntl", "fcntl64"}) {
        for (const int command : kDescriptorCommands) {
            filter.allow(control, {isInt(1, command)});
        }
        for (const int command : {F_SETOWN, F_SETOWN_EX, F_SETSIG}) {
            filter.forbid(control, {isInt(1, command)});
        }
    }
    // Older C libraries ask for the state of a descriptor by this call, with an empty path. Whether
    // it is empty only the signal's handler can see.
    if constexpr (kHandlerSeesArguments) {
        filter.forbid("newfstatat", {has(3, AT_EMPTY_PATH)});
    } else {
        filter.allow("newfstatat", {has(3, AT_EMPTY_PATH)});
    }
    filter.allow("prlimit64", {is(0, 0), is(2, 0)}); // of its own, and without a new one
    for (const unsigned long request : kRequests) {
        filter.allow("ioctl", {is(1, request)});
    }
    for (const unsigned long setting : kThreadSettings) {
        filter.allow("prctl", {is(0, setting)});
    }
}

// Calls `use` with each word of a list, ended by a zero.
template<typename Use>
void eachName(std::string_view list, Use&& use) {
    while (!list.empty()) {
        const size_t end = std::min(list.find(' ', 1), list.size());
        use(std::string(list.substr(1, end - 1)).c_str());
        list.remove_prefix(end);
    }
}

} // namespace

int loadSystemCallFilter() noexcept {
    Filter filter;
    eachName(kAllowed, [&filter](const char* name) { filter.allow(name); });
    eachName(kFatal, [&filter](const char* name) { filter.forbid(name); });
    addConditions(filter);
    return filter.load();
}

std::string systemCallName(int number) {
    const std::unique_ptr<char, decltype(&std::free)> name(
        seccomp_syscall_resolve_num_arch(SCMP_ARCH_NATIVE, number), std::free);
    return name ? name.get() : std::to_string(number);
}

} // namespace tavelin::fusehost
