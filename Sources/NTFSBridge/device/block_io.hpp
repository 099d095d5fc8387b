// The only road from the bridge to the block device: any byte range in, whole blocks out.
//
// A range that is not made of whole blocks goes through a bounce buffer. Results are 0 or a
// positive errno: the device's own, ENOMEM without a bounce buffer, EIO for a read that starts at
// or past the device's end, ENOSPC for a write that reaches past it.
#pragma once

#include "NTFSBridge/ntb.h"

namespace ntb {

// Reads length bytes at offset. A read that crosses the device's end is cut there without notice:
// the rest of the buffer is left alone. Counted in stats unless that is null.
[[nodiscard]] int32_t io_read(const ntb_io& io, ntb_stats* stats, void* buffer, uint64_t offset,
                              uint64_t length) noexcept;

// Writes length bytes at offset, all of them or none past the device's end. Blocks covered in part
// are read first. Counted in stats unless that is null.
[[nodiscard]] int32_t io_write(const ntb_io& io, ntb_stats* stats, const void* buffer,
                               uint64_t offset, uint64_t length) noexcept;

// Whether offset + length stays inside size bytes, whatever the sum would wrap to.
constexpr bool is_within(uint64_t offset, uint64_t length, uint64_t size) noexcept {
    return length <= size && offset <= size - length;
}

} // namespace ntb
