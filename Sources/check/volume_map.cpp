#include "check/volume_map.hpp"

#include "check/private/volume_view.hpp"

#include <algorithm>

namespace tavelin::check {
namespace {

using Count = std::uint64_t VolumeMap::Part::*;

constexpr std::size_t kPieceBytes = 1 << 20; ///< of $Bitmap, read at a time

/// Puts clusters into the parts that they lie in.
class Drawer {
  public:
    Drawer(VolumeMap& map, std::uint64_t clusters, std::size_t parts)
        : map_(map), clusters_(clusters) {
        const std::uint64_t count = std::min<std::uint64_t>(clusters, parts);
        map_.parts.resize(count);
        for (std::uint64_t i = 0; i < count; ++i) {
            map_.parts[i].clusters = begin(i + 1) - begin(i);
        }
    }

    /// Adds a range to one of the counts of each part that it touches.
    void add(VolumeMap::Range range, Count count) {
        const std::uint64_t end = std::min(range.first + range.count, clusters_);
        for (std::uint64_t at = std::min(range.first, end); at < end;) {
            std::uint64_t part = at * map_.parts.size() / clusters_;
            // The division rounds down, and so may begin(): the part is this one or the next.
            part += at >= begin(part + 1) ? 1 : 0;
            const std::uint64_t until = std::min(end, begin(part + 1));
            map_.parts[part].*count += until - at;
            at = until;
        }
    }

  private:
    [[nodiscard]] std::uint64_t begin(std::uint64_t part) const {
        return clusters_ * part / map_.parts.size();
    }

    VolumeMap& map_;
    const std::uint64_t clusters_;
};

/// Finds the used and the free ranges in a bitmap that comes piece by piece.
class RangeFinder {
  public:
    RangeFinder(VolumeMap& map, Drawer& drawer) : map_(map), drawer_(drawer) {}

    void take(std::span<const std::uint8_t> bitmap, std::uint64_t clusters) {
        for (std::uint64_t bit = 0; bit < clusters; ++bit) {
            const std::uint8_t byte = bitmap[bit / 8];
            const bool wholeByte =
                bit % 8 == 0 && bit + 8 <= clusters && (byte == 0 || byte == 0xff);
            const bool isUsed = (byte >> bit % 8 & 1) != 0;
            if (isUsed != isUsed_) {
                end();
                isUsed_ = isUsed;
            }
            range_.count += wholeByte ? 8 : 1;
            bit += wholeByte ? 7 : 0;
        }
    }
    /// Ends the range that goes on at the end of what was taken.
    void end() {
        if (isUsed_) {
            drawer_.add(range_, &VolumeMap::Part::used);
        } else if (range_.count > 0) {
            map_.freeRanges += 1;
            map_.freeLongest = std::max(map_.freeLongest, range_.count);
        }
        range_ = {range_.first + range_.count, 0};
    }

  private:
    VolumeMap& map_;
    Drawer& drawer_;
    VolumeMap::Range range_;
    bool isUsed_ = false;
};

bool readBitmap(Volume& volume, std::uint64_t clusters, RangeFinder& finder) {
    File file;
    const Attribute* const data =
        volume.loadFile(ntb::record_bitmap, file) ? file.find(ntb::at_data) : nullptr;
    if (data == nullptr || data->size() < (clusters + 7) / 8) {
        return false;
    }
    std::vector<std::uint8_t> piece(kPieceBytes);
    for (std::uint64_t done = 0; done < clusters; done += kPieceBytes * 8) {
        const std::uint64_t count = std::min<std::uint64_t>(clusters - done, kPieceBytes * 8);
        const std::span<std::uint8_t> bytes = std::span(piece).first((count + 7) / 8);
        if (volume.read(*data, done / 8, bytes) != 0) {
            return false;
        }
        finder.take(bytes, count);
    }
    finder.end();
    return true;
}

/// Draws the clusters of all attributes of a file. False when it cannot be read.
bool draw(Volume& volume, std::uint64_t record, Drawer& drawer, Count count,
          std::vector<VolumeMap::Range>* fragments) {
    File file;
    if (!volume.loadFile(record, file)) {
        return false;
    }
    for (const Attribute& attribute : file.attributes) {
        for (const ntb::run& run : attribute.runs) {
            if (run.is_hole) {
                continue;
            }
            drawer.add({run.lcn, run.length}, count);
            if (fragments != nullptr) {
                // Two runs that touch are one piece on the disk.
                if (!fragments->empty() &&
                    fragments->back().first + fragments->back().count == run.lcn) {
                    fragments->back().count += run.length;
                } else {
                    fragments->push_back({run.lcn, run.length});
                }
            }
        }
    }
    return true;
}

} // namespace

VolumeMap::Part VolumeMap::total() const {
    Part sum;
    for (const Part& part : parts) {
        sum.clusters += part.clusters;
        sum.used += part.used;
        sum.metadata += part.metadata;
        sum.file += part.file;
    }
    return sum;
}

std::optional<VolumeMap> readVolumeMap(BlockDevice& device, std::size_t parts,
                                       std::optional<std::uint64_t> record) {
    VolumeView view(device);
    if (!view.isReadable()) {
        return std::nullopt;
    }
    Volume& volume = view.volume();
    VolumeMap map;
    map.clusterBytes = volume.boot.cluster_size;
    // The device bounds what a damaged boot sector claims.
    const std::uint64_t clusters =
        std::min(volume.boot.clusters(), device.size() / map.clusterBytes);
    if (clusters == 0) {
        return std::nullopt;
    }
    Drawer drawer(map, clusters, parts);
    RangeFinder finder(map, drawer);
    if (!readBitmap(volume, clusters, finder)) {
        return std::nullopt;
    }
    for (std::uint64_t number = 0; number < ntb::first_reserved_record; ++number) {
        // The root directory is a user's, and a damaged system file only lacks in the picture.
        if (number != ntb::record_root && number != record) {
            static_cast<void>(draw(volume, number, drawer, &VolumeMap::Part::metadata, nullptr));
        }
    }
    if (record && !draw(volume, *record, drawer, &VolumeMap::Part::file, &map.fragments)) {
        return std::nullopt;
    }
    return map;
}

} // namespace tavelin::check
