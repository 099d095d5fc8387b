/// How the clusters of a volume are used, part by part: what a picture of it is drawn from.
#pragma once

#include "core/block_device.hpp"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace tavelin::check {

struct VolumeMap {
    /// One of equal parts of the volume, in clusters. The parts follow each other.
    struct Part {
        std::uint64_t clusters = 0; ///< that the part has
        std::uint64_t used = 0;     ///< of these, after $Bitmap
        std::uint64_t metadata = 0; ///< of the used ones, those of the system files
        std::uint64_t file = 0;     ///< of the used ones, those of the file that was asked for
    };
    /// Clusters that follow each other.
    struct Range {
        std::uint64_t first = 0;
        std::uint64_t count = 0;
    };

    std::uint64_t clusterBytes = 0;
    std::vector<Part> parts;
    std::uint64_t freeRanges = 0;  ///< how many pieces the free space is in
    std::uint64_t freeLongest = 0; ///< clusters of the longest
    std::vector<Range> fragments;  ///< of the file, in the order of its bytes
    [[nodiscard]] Part total() const;
};

/// Reads the map in at most `parts` parts, with the clusters of all streams of the file in `record`
/// where that is given. Absent when the volume, its $Bitmap or that record cannot be read. Takes
/// one pass over $Bitmap. std::bad_alloc when memory runs out.
[[nodiscard]] std::optional<VolumeMap> readVolumeMap(BlockDevice& device, std::size_t parts,
                                                     std::optional<std::uint64_t> record);

} // namespace tavelin::check
