// Where $LogFile lies, read without the library: its record, its unnamed data, the runs of that.
// Everything read is the disk's word and is checked before it is believed.
#include "NTFSBridge/device/block_io.hpp"
#include "NTFSBridge/ondisk/disk_layout.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace ntb {
namespace {

constexpr uint64_t log_record = 2;
constexpr uint64_t record_bytes_max = 4096;

// Of a file record.
constexpr uint64_t at_attributes = 0x14; // u16
constexpr uint64_t at_flags = 0x16;      // u16
constexpr uint64_t flag_in_use = 1;
constexpr uint64_t at_used = 0x18; // u32, bytes
// Of an attribute.
constexpr uint64_t data_type = 0x80;
constexpr uint64_t end_type = 0xffffffff;
constexpr uint64_t at_length = 0x04;           // u32
constexpr uint64_t at_non_resident = 0x08;     // u8
constexpr uint64_t at_name_length = 0x09;      // u8
constexpr uint64_t at_attribute_flags = 0x0c;  // u16: compressed, sparse, encrypted
constexpr uint64_t at_lowest_vcn = 0x10;       // u64
constexpr uint64_t at_highest_vcn = 0x18;      // u64
constexpr uint64_t at_runs = 0x20;             // u16
constexpr uint64_t at_data_size = 0x30;        // u64
constexpr uint64_t non_resident_header = 0x40; // bytes

// The record with the words that its update sequence keeps back in their places.
bool read_log_record(const ntb_io& io, const disk_layout& layout, uint8_t* record,
                     int32_t& error) noexcept {
    const uint64_t offset = layout.mft_offset + log_record * layout.record_size;
    error = is_within(offset, layout.record_size, io.size)
                ? io_read(io, nullptr, record, offset, layout.record_size)
                : EINVAL;
    if (error != 0 || !fixups_match(record, layout.record_size, log_record)) {
        return false;
    }
    const uint8_t* word = record + number_at(record, usa_offset, 2);
    for (uint64_t end = protected_sector; end <= layout.record_size; end += protected_sector) {
        word += 2;
        std::memcpy(record + end - 2, word, 2);
    }
    return (number_at(record, at_flags, 2) & flag_in_use) != 0 &&
           number_at(record, at_used, 4) <= layout.record_size;
}

// The unnamed data when it has clusters and is stored plainly and described here as a whole.
const uint8_t* find_data(const uint8_t* record, uint64_t& length) noexcept {
    const uint64_t used = number_at(record, at_used, 4);
    for (uint64_t at = number_at(record, at_attributes, 2); is_within(at, 8, used); at += length) {
        const uint8_t* const attribute = record + at;
        const uint64_t type = number_at(attribute, 0, 4);
        length = number_at(attribute, at_length, 4);
        if (type == end_type || length < 8 || !is_within(at, length, used)) {
            return nullptr;
        }
        if (type == data_type && length >= non_resident_header && attribute[at_name_length] == 0) {
            const bool is_plain = attribute[at_non_resident] == 1 &&
                                  number_at(attribute, at_attribute_flags, 2) == 0 &&
                                  number_at(attribute, at_lowest_vcn, 8) == 0;
            return is_plain ? attribute : nullptr;
        }
    }
    return nullptr;
}

// Decodes runs one by one. A run is a byte with the widths of what follows: its length, and how far
// its first cluster lies from that of the run before.
class mapping_pairs_reader {
  public:
    mapping_pairs_reader(const uint8_t* at, const uint8_t* end) noexcept : at_(at), end_(end) {}

    // False at the end, and for runs that are malformed, sparse or of no place.
    bool next(uint64_t clusters, uint64_t& first, uint64_t& count) noexcept {
        if (at_ == end_ || *at_ == 0) {
            return false;
        }
        const unsigned count_width = *at_ & 0xf;
        const unsigned place_width = *at_ >> 4;
        if (count_width < 1 || count_width > 8 || place_width < 1 || place_width > 8 ||
            static_cast<uint64_t>(end_ - at_) < 1u + count_width + place_width) {
            return false;
        }
        count = number_at(at_, 1, count_width);
        uint64_t distance = number_at(at_, 1 + count_width, place_width);
        if (place_width < 8 && (at_[count_width + place_width] & 0x80) != 0) {
            distance |= ~uint64_t{0} << (place_width * 8);
        }
        lcn_ += distance; // wraps as the two's complement that it is
        at_ += 1 + count_width + place_width;
        first = lcn_;
        return count > 0 && is_within(first, count, clusters);
    }

  private:
    const uint8_t* at_;
    const uint8_t* const end_;
    uint64_t lcn_ = 0;
};

bool overlaps(const ntb_extent& extent, uint64_t offset, uint64_t length) noexcept {
    return extent.offset < offset + length && offset < extent.offset + extent.length;
}

// Whether the extent leaves alone what the volume is found by, and those before it.
bool is_apart(const ntb_extent& extent, const disk_layout& layout, const ntb_extent* others,
              uint32_t count) noexcept {
    const uint64_t mirrored =
        std::max(mirrored_records_min, layout.cluster / layout.record_size) * layout.record_size;
    return extent.offset >= layout.cluster && !overlaps(extent, layout.mft_offset, mirrored) &&
           !overlaps(extent, layout.mftmirr_offset, mirrored) &&
           std::none_of(others, others + count, [&](const ntb_extent& other) {
               return overlaps(extent, other.offset, other.length);
           });
}

} // namespace
} // namespace ntb

using namespace ntb;

int32_t ntb_log_extents(const ntb_io* io, ntb_extent* extents, uint32_t room, uint32_t* count) {
    disk_layout layout;
    if (const int32_t error = read_layout(*io, layout); error != 0) {
        return error;
    }
    uint8_t record[record_bytes_max];
    int32_t error = 0;
    if (!read_log_record(*io, layout, record, error)) {
        return error != 0 ? error : EINVAL;
    }
    uint64_t length = 0;
    const uint8_t* const data = find_data(record, length);
    const uint64_t runs = data == nullptr ? length : number_at(data, at_runs, 2);
    if (runs >= length) {
        return EINVAL;
    }
    const uint64_t clusters = io->size / layout.cluster;
    const uint64_t wanted = number_at(data, at_highest_vcn, 8) + 1;
    mapping_pairs_reader reader(data + runs, data + length);
    uint64_t found = 0;
    uint64_t first = 0;
    uint64_t run = 0;
    *count = 0;
    while (*count < room && reader.next(clusters, first, run)) {
        const ntb_extent extent{first * layout.cluster, run * layout.cluster};
        if (!is_apart(extent, layout, extents, *count)) {
            return EINVAL;
        }
        extents[(*count)++] = extent;
        found += run;
    }
    const bool is_complete = found == wanted && found <= clusters &&
                             number_at(data, at_data_size, 8) == found * layout.cluster;
    return is_complete ? 0 : EINVAL;
}
