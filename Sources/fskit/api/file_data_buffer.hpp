/// Memory that a read request fills.
#pragma once

#include <cstddef>
#include <span>

namespace fskit {

/// A view of the host's memory, valid until the reply.
class FSMutableFileDataBuffer {
  public:
    /// The memory stays the host's and must outlive the request.
    explicit FSMutableFileDataBuffer(std::span<std::byte> memory) noexcept : memory_(memory) {}

    /// Bytes that a read may fill at most.
    std::size_t length() const noexcept { return memory_.size(); }
    std::byte* mutableBytes() const noexcept { return memory_.data(); }

  private:
    std::span<std::byte> memory_;
};

} // namespace fskit
