/// A POSIX file descriptor with one owner, and the loops that its system calls need.
///
/// A signal may interrupt a call, and a call may transfer fewer bytes than asked; both are handled
/// here once. Offsets and sizes are bytes. Errors are the host's errno.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <span>
#include <sys/types.h>
#include <unistd.h>
#include <utility>

namespace tavelin {

/// The result of a system call that is repeated for as long as a signal interrupts it.
template<typename Call>
auto uninterrupted(Call call) noexcept {
    auto result = call();
    while (result < 0 && errno == EINTR) {
        result = call();
    }
    return result;
}

/// Pieces of memory whose bytes go to a file or device one after the other. The memory belongs to
/// the caller.
using GatheredBytes = std::span<const std::span<const std::byte>>;
/// How many bytes the parts have together.
[[nodiscard]] std::size_t bytesIn(GatheredBytes parts) noexcept;

/// Owns at most one descriptor. Move-only. The transfers may be called from several threads at
/// once; close() and the assignment may not run beside anything else.
///
/// The destructor closes and drops the result, which is right for files that were only read, and
/// for those whose writes were synchronised. Another file that was written is closed by close(),
/// whose result counts: some file systems report a failed write only there.
class FileDescriptor {
  public:
    FileDescriptor() = default;
    /// Takes over a descriptor as open() returned it; a negative one makes an empty owner and
    /// leaves errno as it is.
    explicit FileDescriptor(int number) noexcept : number_(number) {}
    /// Opens `path`, closed on exec. Empty, with errno set, where that fails.
    FileDescriptor(const char* path, int flags, mode_t mode = 0) noexcept;
    FileDescriptor(FileDescriptor&& other) noexcept : number_(other.release()) {}
    /// Closes what it owned before.
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        reset(other.release());
        return *this;
    }
    ~FileDescriptor() { reset(); }

    explicit operator bool() const noexcept { return number_ >= 0; }
    /// The number, which stays owned; -1 when empty.
    [[nodiscard]] int get() const noexcept { return number_; }
    /// Gives the descriptor up: the caller closes it.
    [[nodiscard]] int release() noexcept { return std::exchange(number_, -1); }
    /// Closes what is owned, drops the result, and owns `number` from then on. Keeps errno.
    void reset(int number = -1) noexcept;
    /// Closes, and is empty afterwards. 0, or an errno: written data may be lost. Must hold a
    /// descriptor. The call is never repeated: after a failure the number may already belong to
    /// another file.
    [[nodiscard]] int close() noexcept;

    /// How far a transfer came. Both members can say something: an error after some bytes.
    struct Transferred {
        std::size_t bytes = 0; ///< all that was asked, unless there was an error or the end
        int error = 0;         ///< why it stopped; `bytes` were transferred before
    };
    /// Reads until `length` bytes are there, or up to the end of the file.
    [[nodiscard]] Transferred readAt(void* into, std::size_t length,
                                     std::uint64_t offset) const noexcept;
    /// Writes all `length` bytes. A device that takes none any more answers ENOSPC.
    [[nodiscard]] Transferred writeAt(const void* from, std::size_t length,
                                      std::uint64_t offset) const noexcept;
    /// Writes all bytes of all parts, at most 1 GiB together, from `offset` on.
    [[nodiscard]] Transferred writeAt(GatheredBytes parts, std::uint64_t offset) const noexcept;
    /// Writes all `length` bytes at the file's own position.
    [[nodiscard]] Transferred write(const void* from, std::size_t length) const noexcept;
    /// One read at the file's own position: a pipe's bytes as they come, none at its end.
    [[nodiscard]] Transferred readSome(void* into, std::size_t length) const noexcept;

  private:
    int number_ = -1;
};

} // namespace tavelin
