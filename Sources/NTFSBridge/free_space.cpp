// Finding free clusters in the volume's bitmap.
#include "NTFSBridge/transfer.hpp"
#include "NTFSBridge/volume.hpp"

#include <algorithm>
#include <array>

using namespace ntb;

namespace {

constexpr uint64_t bits_per_byte = 8;

// A part of the cluster bitmap in memory.
class bitmap_part {
  public:
    // Reads the part that begins with the byte of `cluster`. Of a bitmap that ends early the rest
    // counts as in use: it must not be taken for free.
    [[nodiscard]] int32_t read(ntfs_attr* bitmap, uint64_t cluster) noexcept {
        first_ = cluster / bits_per_byte * bits_per_byte;
        bytes_.fill(0xff);
        uint64_t done = 0;
        return read_stream(bitmap, first_ / bits_per_byte, bytes_.data(), bytes_.size(), &done);
    }

    uint64_t end() const noexcept { return first_ + bytes_.size() * bits_per_byte; }

    bool is_free(uint64_t cluster) const noexcept {
        const uint64_t bit = cluster - first_;
        return (bytes_[bit / bits_per_byte] >> (bit % bits_per_byte) & 1u) == 0;
    }

  private:
    uint64_t first_ = 0; // cluster of the first bit
    std::array<uint8_t, 4096> bytes_{};
};

} // namespace

int32_t ntb_free_extents(ntb_vol* vol, uint64_t from, uint64_t to, ntb_extent* extents,
                         uint32_t room, uint32_t* count, uint64_t* next) {
    *count = 0;
    const ntfs_volume* const volume = vol->volume;
    const uint64_t size = volume->cluster_size;
    const auto clusters = static_cast<uint64_t>(std::max<s64>(volume->nr_clusters, 0));
    const uint64_t end = std::min(to / size, clusters);
    uint64_t cluster = (from + size - 1) / size;
    *next = cluster * size;
    bitmap_part part;
    for (uint64_t known_to = 0; cluster < end; ++cluster) {
        if (cluster >= known_to) {
            if (const int32_t error = part.read(volume->lcnbmp_na, cluster); error != 0) {
                return error;
            }
            known_to = part.end();
        }
        const uint64_t at = cluster * size;
        if (part.is_free(cluster)) {
            ntb_extent* const last = *count != 0 ? &extents[*count - 1] : nullptr;
            if (last != nullptr && last->offset + last->length == at) {
                last->length += size;
            } else if (*count == room) {
                return 0;
            } else {
                extents[(*count)++] = {.offset = at, .length = size};
            }
        }
        *next = at + size;
    }
    return 0;
}
