// A block device in memory that can fail to read.
#pragma once

#include "core/block_device.hpp"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <vector>

namespace tavelin::test {

class MemoryDevice final : public BlockDevice {
  public:
    explicit MemoryDevice(std::vector<uint8_t> content, uint32_t blockSize = 512)
        : bytes(std::move(content)), blockSize_(blockSize) {}

    std::uint64_t size() const noexcept override { return bytes.size() / blockSize_ * blockSize_; }
    std::uint32_t blockSize() const noexcept override { return blockSize_; }

    std::int32_t read(std::byte* to, std::uint64_t offset, std::uint64_t length) noexcept override {
        if (length > bytes.size() || offset > bytes.size() - length ||
            (badAt < offset + length && offset <= badAt)) {
            return EIO;
        }
        std::memcpy(to, bytes.data() + offset, length);
        return 0;
    }
    std::int32_t write(const std::byte* from, std::uint64_t offset,
                       std::uint64_t length) noexcept override {
        if (length > bytes.size() || offset > bytes.size() - length) {
            return EIO;
        }
        std::memcpy(bytes.data() + offset, from, length);
        return 0;
    }
    std::int32_t sync() noexcept override { return 0; }

    std::vector<uint8_t> bytes;
    std::uint64_t badAt = UINT64_MAX; // reads of this byte fail

  private:
    const std::uint32_t blockSize_;
};

} // namespace tavelin::test
