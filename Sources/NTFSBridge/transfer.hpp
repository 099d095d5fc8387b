// Moving bytes between memory and an open data stream.
#pragma once

#include "NTFSBridge/guards.hpp"

namespace ntb {

// Reads length bytes, or fewer where the library ends early without an error. *done counts them
// even on failure; errno or EIO.
[[nodiscard]] int32_t read_stream(ntfs_attr* stream, uint64_t offset, void* to, uint64_t length,
                                  uint64_t* done) noexcept;

// Writes length bytes, extending the stream as needed. *done counts what was written even on
// failure; errno or EIO.
[[nodiscard]] int32_t write_stream(ntfs_attr* stream, uint64_t offset, const void* from,
                                   uint64_t length, uint64_t* done) noexcept;

} // namespace ntb
