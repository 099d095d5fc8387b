/// What differs by platform about image files and device nodes. Descriptors stay the caller's;
/// results are 0 or the host's errno. Any thread.
#pragma once

#include <cstdint>

namespace tavelin {

/// The size in bytes of an open regular file or block device node (whose fstat size is 0).
[[nodiscard]] int diskFileSize(int fd, std::uint64_t& bytes) noexcept;

/// Asks the host to keep this descriptor's data out of its buffer cache. Best effort: where the
/// host cannot, transfers are merely cached.
///
/// macOS does this by itself from here on (F_NOCACHE). Linux has no such switch that would suit:
/// O_DIRECT wants aligned memory and is refused by some file systems. There this turns read-ahead
/// off, and forgetHostCache() has to be called for what was transferred.
void bypassHostCache(int fd) noexcept;

/// Drops a range that was read or has been synchronised from the host's cache; length 0 means up
/// to the end. Dirty data stays until it is written. Does nothing on macOS.
void forgetHostCache(int fd, std::uint64_t offset, std::uint64_t length) noexcept;

} // namespace tavelin
