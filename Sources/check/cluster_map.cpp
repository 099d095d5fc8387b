#include "check/private/cluster_map.hpp"

#include <algorithm>
#include <bit>

namespace tavelin::check {
namespace {

constexpr std::size_t kConflictsMax = 1u << 16;

} // namespace

std::uint64_t* ClusterMap::writableChunk(std::uint64_t index) {
    // Runs of one file mostly lie close together. The last chunk's address stays good, since a
    // chunk is never moved or dropped.
    if (index != lastIndex_) {
        Chunk& chunk = chunks_[index];
        if (!chunk) {
            chunk = std::make_unique<std::uint64_t[]>(kChunkWords);
        }
        lastIndex_ = index;
        last_ = chunk.get();
    }
    TAVELIN_ASSERT(last_ != nullptr && index == lastIndex_);
    return last_;
}

void ClusterMap::mark(std::uint64_t first, std::uint64_t count,
                      std::vector<ClusterRange>& conflicts) {
    const std::uint64_t end = first + count;
    TAVELIN_ASSERT(count > 0 && end > first);
    while (first < end) {
        std::uint64_t& word = writableChunk(first / kChunkClusters)[first % kChunkClusters / 64];
        const std::uint64_t bits = std::min<std::uint64_t>(64 - first % 64, end - first);
        const std::uint64_t mask = (bits == 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << bits) - 1)
                                   << first % 64;
        TAVELIN_ASSERT(bits > 0 && bits <= 64 && mask != 0);
        std::uint64_t twice = word & mask;
        used_ += static_cast<std::uint64_t>(std::popcount(mask & ~word));
        word |= mask;
        const std::uint64_t base = first / 64 * 64;
        // Each block of set bits is one range. A range that goes on in the next word grows there.
        while (twice != 0) {
            const auto start = static_cast<unsigned>(std::countr_zero(twice));
            const auto length = static_cast<unsigned>(std::countr_one(twice >> start));
            if (!conflicts.empty() &&
                conflicts.back().first + conflicts.back().count == base + start) {
                conflicts.back().count += length;
            } else if (conflicts.size() < kConflictsMax) { // a hostile volume could fill the memory
                conflicts.push_back({base + start, length});
            }
            // A shift by 64 would be undefined.
            twice = start + length < 64 ? twice & ~std::uint64_t{0} << (start + length) : 0;
        }
        first += bits;
    }
}

const std::uint64_t* ClusterMap::chunk(std::uint64_t index) const {
    const auto found = chunks_.find(index);
    return found == chunks_.end() ? nullptr : found->second.get();
}

} // namespace tavelin::check
