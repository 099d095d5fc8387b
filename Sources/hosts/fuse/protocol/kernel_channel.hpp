/// The bytes between the kernel and libfuse, seen on their way.
///
/// libfuse reads requests from /dev/fuse and writes replies to it; a KernelChannel does both on its
/// behalf, which lets it
///  - count and print every request by its kind;
///  - offer the kernel a capability that this libfuse has no name for: the file system clears
///    set-user-ID bits itself (it has none), so the kernel may remember that a file has no
///    capabilities instead of asking for them before every write. Not so where modes are kept: the
///    kernel then goes on by the mode it knew, and would still run a program with the bit;
///  - serve syncfs, which this libfuse does not know, as an fsync of the root directory.
///
/// Reads and writes come from several threads at once.
#pragma once

#include "platform/file_descriptor.hpp"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <sys/uio.h>

struct fuse_session;

namespace tavelin::fusehost {

/// The kernel's name of a kind of request, such as "LOOKUP".
std::string_view requestName(uint32_t opcode) noexcept;

class KernelChannel {
  public:
    /// With `trace`, a line is printed to standard error for every request.
    KernelChannel(bool trace, bool keepsModes) : trace_(trace), keepsModes_(keepsModes) {}
    KernelChannel(const KernelChannel&) = delete;
    KernelChannel& operator=(const KernelChannel&) = delete;

    /// Connects a session, whose user data is a SessionContext that names this channel, to a mount:
    /// an open /dev/fuse, which is the session's from then on unless this fails. 0 or a host errno.
    /// The channel must outlive the session.
    [[nodiscard]] static int attach(fuse_session* session, FileDescriptor& connection);

    /// One line with the count of every kind of request so far, most frequent first.
    std::string summary() const;

    /// What libfuse calls in place of read(2) and writev(2) on /dev/fuse.
    ssize_t read(int fd, void* buffer, size_t size) noexcept;
    ssize_t write(int fd, struct iovec* parts, int count) noexcept;

  private:
    /// Counts a request by its opcode, and prints it when asked to.
    void note(const void* request, ssize_t size) noexcept;

    /// Higher opcodes than these are counted with the last.
    static constexpr size_t kOpcodes = 64;
    const bool trace_;
    const bool keepsModes_;
    std::array<std::atomic<uint64_t>, kOpcodes> counts_{};
    std::atomic<uint64_t> initRequest_{0}; // unique number of the INIT request while it is open
    std::atomic<bool> clearsPrivileges_{false};
};

} // namespace tavelin::fusehost
