/// Operations on image files and device nodes whose system calls differ between platforms.
///
/// Descriptors stay the caller's. Offsets and sizes are bytes. Results are 0 or the host's errno.
/// All functions may be called from any thread.
#pragma once

#include <cstdint>

namespace tavelin {

/// Stores the size in bytes of an open regular file or block device node, whose fstat size is 0.
/// On an error `bytes` is unspecified. Linux answers for devices by BLKGETSIZE64, macOS by the
/// product of DKIOCGETBLOCKSIZE and DKIOCGETBLOCKCOUNT.
[[nodiscard]] int diskFileSize(int fd, std::uint64_t& bytes) noexcept;

/// Asks the host to keep this descriptor's data out of its buffer cache. Best effort: where the
/// host cannot, transfers are merely cached.
///
/// macOS does this by itself from here on (F_NOCACHE). Linux has no such switch that would suit:
/// O_DIRECT wants aligned memory and is refused by some file systems. There this turns read-ahead
/// off, and forgetHostCache() has to be called for every range that was transferred.
void bypassHostCache(int fd) noexcept;

/// Drops a range that was read, or that was written and synchronised, from the host's cache.
/// `length` 0 means up to the end. Dirty pages stay until they are written, so this is called
/// after fsync() and never in its place. Does nothing on macOS.
void forgetHostCache(int fd, std::uint64_t offset, std::uint64_t length) noexcept;

/// Tells an open file or block device that a range of it holds nothing any more. A file gives its
/// blocks back and reads as zeroes there. A device may answer anything, as long as it goes on
/// answering the same, until it is written to again. Offset and length are multiples of the
/// device's block. EOPNOTSUPP where the device or the host has no such request, as on macOS.
[[nodiscard]] int discardRange(int fd, std::uint64_t offset, std::uint64_t length) noexcept;

} // namespace tavelin
