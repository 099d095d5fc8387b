/// Memory that a read request fills.
#pragma once

#include <cstddef>
#include <span>

namespace fskit {

/// A view of the host's memory, valid until the reply.
class FSMutableFileDataBuffer {
  public:
    explicit FSMutableFileDataBuffer(std::span<std::byte> memory) noexcept : memory_(memory) {}

    std::size_t length() const noexcept { return memory_.size(); }
    std::byte* mutableBytes() const noexcept { return memory_.data(); }

  private:
    std::span<std::byte> memory_;
};

} // namespace fskit
