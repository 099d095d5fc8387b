/// The sandbox of a mount's server, which reads what anybody may have put on a disk: a server that
/// was taken over through the volume reaches nothing but that volume.
///
/// Three layers, each of which the kernel enforces from then on: no program gives it privileges
/// (no_new_privs), nothing new is opened (Landlock), and only the system calls of serving are made
/// (seccomp). What is open stays usable, so whatever needs more is opened before, or done by the
/// Broker outside.
#pragma once

#include <string>

namespace tavelin::fusehost {

/// Sanitizers open files and start programs of their own for a report.
#if defined(TAVELIN_SANITIZE)
inline constexpr bool kSandboxInBuild = false;
#else
inline constexpr bool kSandboxInBuild = true;
#endif

/// What is in force. Each is 0, or the host errno that says why it is not.
struct SandboxState {
    int noNewPrivileges = 0;
    int files = 0;       ///< Landlock
    int systemCalls = 0; ///< seccomp

    [[nodiscard]] bool isComplete() const noexcept {
        return noNewPrivileges == 0 && files == 0 && systemCalls == 0;
    }
    /// A sentence for the log on what is not in force; empty when all is.
    [[nodiscard]] std::string shortcomings() const;
};

/// The last message of a server that made a forbidden system call.
struct ForbiddenCall {
    static constexpr char kMark = '!';
    char mark = kMark;
    int systemCall = 0;
};

/// Takes away from the calling process what serving does not need, for good. To be called while
/// there is no other thread. A layer that the kernel does not have is left out.
///
/// A forbidden system call is not executed: a ForbiddenCall is sent through `witness`, a connected
/// socket that stays open until the process ends, and SIGSYS ends the process. The C library alone
/// may ask for a few files by itself and is answered EACCES, and fstat() in its older form works.
[[nodiscard]] SandboxState enterSandbox(int witness) noexcept;

} // namespace tavelin::fusehost
