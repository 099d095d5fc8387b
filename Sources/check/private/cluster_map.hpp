/// One bit a cluster: whether an attribute uses it.
#pragma once

#include "platform/assert.hpp"

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

namespace tavelin::check {

struct ClusterRange {
    std::uint64_t first = 0;
    std::uint64_t count = 0;
};

/// Bits are kept in chunks, and only those that have a bit set.
class ClusterMap {
  public:
    static constexpr std::uint64_t kChunkClusters = 1u << 20;
    static constexpr std::uint64_t kChunkWords = kChunkClusters / 64;
    static_assert(kChunkClusters % 64 == 0); // no word lies across two chunks

    /// Sets the bits. Ranges that were set before are added to `conflicts`.
    void mark(std::uint64_t first, std::uint64_t count, std::vector<ClusterRange>& conflicts);
    /// The words of a chunk, the lowest bit first; null where no bit is set.
    [[nodiscard]] const std::uint64_t* chunk(std::uint64_t index) const;
    [[nodiscard]] std::uint64_t used() const noexcept { return used_; }

  private:
    using Chunk = std::unique_ptr<std::uint64_t[]>;

    std::uint64_t* writableChunk(std::uint64_t index);

    std::unordered_map<std::uint64_t, Chunk> chunks_;
    std::uint64_t used_ = 0;
    std::uint64_t lastIndex_ = UINT64_MAX;
    std::uint64_t* last_ = nullptr;
};

} // namespace tavelin::check
