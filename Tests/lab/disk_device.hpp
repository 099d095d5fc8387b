// The disk as the core has it.
#pragma once

#include "core/block_device.hpp"
#include "lab/disk.hpp"

#include <memory>

namespace tavelin::test {

// A transfer that the hook cuts short is an error here. Programs that include this link the core.
template<typename Content>
class DiskDeviceOf final : public BlockDevice, public DiskOf<Content> {
  public:
    explicit DiskDeviceOf(Content content, std::uint32_t block = 512)
        : DiskOf<Content>(std::move(content)), blockBytes(block) {}

    std::uint64_t size() const noexcept override {
        return this->bytes.size() / blockBytes * blockBytes;
    }
    std::uint32_t blockSize() const noexcept override { return blockBytes; }

    std::int32_t read(std::byte* to, std::uint64_t offset, std::uint64_t length) noexcept override {
        return errorOf([&] { return this->copyOut(DiskCall::read, to, offset, length) == length; });
    }
    std::int32_t write(const std::byte* from, std::uint64_t offset,
                       std::uint64_t length) noexcept override {
        return errorOf(
            [&] { return this->copyIn(DiskCall::write, from, offset, length) == length; });
    }
    std::int32_t discard(std::uint64_t offset, std::uint64_t length) noexcept override {
        return !takesDiscards ? EOPNOTSUPP : errorOf([&] {
            this->lose(offset, length);
            return true;
        });
    }
    std::int32_t sync() noexcept override {
        return errorOf([&] {
            this->flush(DiskCall::flush);
            return true;
        });
    }
    Backlog backlog() const noexcept override { return {0, room}; }

    std::uint32_t blockBytes;
    std::uint64_t room = 0; // what it says to have for writes that wait
    bool takesDiscards = true;

  private:
    template<typename Transfer>
    static std::int32_t errorOf(Transfer&& transfer) noexcept {
        try {
            return transfer() ? 0 : EIO;
        } catch (const DiskFailure& failure) {
            return failure.error;
        }
    }
};

using Disk = DiskDeviceOf<Bytes>;
using MemoryDevice = DiskDeviceOf<std::vector<std::uint8_t>>;

} // namespace tavelin::test
