#include "NTFSBridge/device/block_io.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

namespace ntb {
namespace {

constexpr uint64_t round_down(uint64_t value, uint64_t block) noexcept {
    return value - value % block;
}

constexpr uint64_t round_up(uint64_t value, uint64_t block) noexcept {
    return round_down(value + block - 1, block);
}

bool is_aligned(const ntb_io& io, uint64_t offset, uint64_t length) noexcept {
    // Block sizes 0 and 1 both mean that the device takes any byte range, see ntb_io.
    return io.block_size < 2 || (offset % io.block_size == 0 && length % io.block_size == 0);
}

std::unique_ptr<uint8_t[]> bounce_buffer(ntb_stats* stats, uint64_t size) noexcept {
    if (stats != nullptr) {
        stats->unalignedOps += 1;
    }
    // Without exceptions, as they must not cross the library's C frames on their way up.
    return std::unique_ptr<uint8_t[]>(new (std::nothrow) uint8_t[size]);
}

// Fills the block at offset as far as the device goes; what lies past its end is zero.
int32_t read_edge_block(const ntb_io& io, uint8_t* block, uint64_t offset) noexcept {
    if (!is_within(offset, io.block_size, io.size)) {
        std::memset(block, 0, io.block_size);
    }
    return io_read(io, nullptr, block, offset, io.block_size);
}

} // namespace

int32_t io_read(const ntb_io& io, ntb_stats* stats, void* buffer, uint64_t offset,
                uint64_t length) noexcept {
    if (length == 0) {
        return 0;
    }
    if (offset >= io.size) {
        return EIO;
    }
    // The library reads whole structures near the end of the volume and looks at the count that it
    // got. So a read across the end is cut and not refused.
    length = std::min(length, io.size - offset);
    if (stats != nullptr) {
        stats->deviceReads += 1;
        stats->readBytes += length;
    }
    if (is_aligned(io, offset, length)) {
        return io.read(io.context, buffer, offset, length);
    }
    const uint64_t start = round_down(offset, io.block_size);
    // A device that ends inside a block is read up to its end.
    const uint64_t end = std::min(round_up(offset + length, io.block_size), io.size);
    const auto bounce = bounce_buffer(stats, end - start);
    if (!bounce) {
        return ENOMEM;
    }
    const int32_t error = io.read(io.context, bounce.get(), start, end - start);
    if (error == 0) {
        std::memcpy(buffer, bounce.get() + (offset - start), length);
    }
    return error;
}

int32_t io_write(const ntb_io& io, ntb_stats* stats, const void* buffer, uint64_t offset,
                 uint64_t length) noexcept {
    if (length == 0) {
        return 0;
    }
    if (!is_within(offset, length, io.size)) {
        // Unlike a read, a write is not cut: bytes past the end would be lost while the write
        // succeeds.
        return ENOSPC;
    }
    if (stats != nullptr) {
        stats->deviceWrites += 1;
        stats->writeBytes += length;
    }
    if (is_aligned(io, offset, length)) {
        return io.write(io.context, buffer, offset, length);
    }
    // The rest of the first and the last block must keep its content, so those two are read first.
    // Nothing is written when that fails.
    const uint64_t block = io.block_size;
    const uint64_t start = round_down(offset, block);
    const uint64_t end = round_up(offset + length, block);
    const auto bounce = bounce_buffer(stats, end - start);
    if (!bounce) {
        return ENOMEM;
    }
    if (offset != start) {
        if (const int32_t error = read_edge_block(io, bounce.get(), start); error != 0) {
            return error;
        }
    }
    if (offset + length != end) {
        uint8_t* const last = bounce.get() + (end - block - start);
        if (const int32_t error = read_edge_block(io, last, end - block); error != 0) {
            return error;
        }
    }
    std::memcpy(bounce.get() + (offset - start), buffer, length);
    return io.write(io.context, bounce.get(), start, end - start);
}

} // namespace ntb
