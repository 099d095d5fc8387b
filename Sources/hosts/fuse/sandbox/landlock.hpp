/// Landlock, see landlock(7): a process gives up its access to files and the network by itself.
///
/// Called as raw system calls and with numbers of our own: older headers lack the wrappers and the
/// later rights, while the kernel that runs may know them.
#pragma once

namespace tavelin::fusehost {

/// Takes from the calling thread, and from those that it starts later, every access to files and
/// addresses that is not open yet: also TCP, abstract UNIX sockets and signals to others, as far as
/// the kernel has rights for them. What is open stays usable. Needs no_new_privs. 0, or a host
/// errno: ENOSYS and EOPNOTSUPP where the kernel has no Landlock or it is turned off.
[[nodiscard]] int giveUpFiles() noexcept;

} // namespace tavelin::fusehost
