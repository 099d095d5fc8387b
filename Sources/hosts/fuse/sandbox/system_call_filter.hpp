/// The system calls that the server of a mount may make, as a seccomp filter, see seccomp(2).
#pragma once

#include <string>

namespace tavelin::fusehost {

/// Whether the handler of SIGSYS can see the arguments of a call, so that more depends on them than
/// a filter can see.
#if defined(__x86_64__) || defined(__aarch64__)
inline constexpr bool kHandlerSeesArguments = true;
#else
inline constexpr bool kHandlerSeesArguments = false;
#endif

/// Puts the filter in force for the calling thread and those that it starts later. 0, or a host
/// errno: EINVAL where the kernel has no filters.
///
/// What serving needs is allowed. What opens, runs, connects, traces, mounts or maps code raises
/// SIGSYS: no server that is sound ever asks for it. Everything else answers ENOSYS, so that a C
/// library which tries a newer system call first falls back on the older one.
[[nodiscard]] int loadSystemCallFilter() noexcept;

/// The name of a system call of this machine, such as "openat"; its number where it has none.
[[nodiscard]] std::string systemCallName(int number);

} // namespace tavelin::fusehost
