/// Reads byte ranges of a block device.
#pragma once

#include "core/block_device.hpp"

#include <cstdint>
#include <span>
#include <vector>

namespace tavelin::check {

class DeviceReader {
  public:
    explicit DeviceReader(BlockDevice& device) : device_(device) {}

    [[nodiscard]] std::uint64_t size() const noexcept { return device_.size(); }
    /// 0 or the host's errno: EIO for a range that is not on the device.
    [[nodiscard]] std::int32_t read(std::uint64_t offset, std::span<std::uint8_t> into);

  private:
    BlockDevice& device_;
    std::vector<std::uint8_t> bounce_;
};

} // namespace tavelin::check
