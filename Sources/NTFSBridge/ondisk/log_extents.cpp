// Where $LogFile lies, read without the library: its record, its unnamed data, the runs of that.
// Everything read is the disk's word and is checked before it is believed.
#include "NTFSBridge/device/block_io.hpp"
#include "NTFSBridge/ondisk/file_record.hpp"
#include "NTFSBridge/ondisk/mapping_pairs.hpp"
#include "NTFSBridge/ondisk/volume_reader.hpp"
#include "platform/assert.hpp"

#include <algorithm>
#include <cerrno>

namespace ntb {
namespace {

// The unnamed data when it has clusters and is stored plainly and described by this record alone.
// Clusters of a compressed, sparse or encrypted stream do not hold its bytes one to one, and
// extents in other records would have to be found through an attribute list.
bool find_plain_data(const record_view& record, attribute_view& data) noexcept {
    attribute_reader attributes(record);
    while (attributes.next(data) == attribute_reader::result::attribute) {
        if (data.type() == at_data && data.name_length() == 0) {
            return !data.is_resident() && data.flags() == 0 && data.lowest_vcn() == 0;
        }
    }
    return false;
}

bool overlaps(const ntb_extent& extent, uint64_t offset, uint64_t length) noexcept {
    TAVELIN_ASSERT(extent.length > 0 && length > 0);
    return extent.offset < offset + length && offset < extent.offset + extent.length;
}

// Whether the extent leaves alone what the volume is found by, and the extents before it. The
// journal is written over these extents without asking the library: a run list that leads it onto
// the boot sector or the first records would have it destroy the volume.
bool is_apart(const ntb_extent& extent, const boot_sector& boot, const ntb_extent* others,
              uint32_t count) noexcept {
    const uint64_t mirrored = mirrored_records(boot) * boot.record_size;
    return extent.offset >= boot.cluster_size &&
           !overlaps(extent, boot.mft_lcn * boot.cluster_size, mirrored) &&
           !overlaps(extent, boot.mftmirr_lcn * boot.cluster_size, mirrored) &&
           std::none_of(others, others + count, [&](const ntb_extent& other) {
               return overlaps(extent, other.offset, other.length);
           });
}

// Stores the extents of a run list that has as many clusters as the attribute says, all of them on
// the device.
bool store_extents(const attribute_view& data, const boot_sector& boot, uint64_t clusters,
                   ntb_extent* extents, uint32_t room, uint32_t& count) noexcept {
    using result = mapping_pairs_reader::result;
    mapping_pairs_reader pairs(data.mapping_pairs(), 0);
    run next;
    // Fragments of $LogFile are few. A list with more than the caller has room for is refused, not
    // cut off: its VCNs would no longer cover the file.
    result found = pairs.read(next);
    for (count = 0; found == result::run; found = pairs.read(next)) {
        if (count == room || next.is_hole || !is_within(next.lcn, next.length, clusters)) {
            return false;
        }
        const ntb_extent extent{next.lcn * boot.cluster_size, next.length * boot.cluster_size};
        if (!is_apart(extent, boot, extents, count)) {
            return false;
        }
        extents[count++] = extent;
        TAVELIN_ASSERT(count <= room && extent.offset % boot.cluster_size == 0);
    }
    // pairs.vcn() is the number of clusters, as there are no holes and the first VCN is 0.
    return found == result::end && count > 0 && pairs.vcn() == data.highest_vcn() + 1 &&
           data.data_size() == pairs.vcn() * boot.cluster_size;
}

} // namespace
} // namespace ntb

using namespace ntb;

int32_t ntb_log_extents(const ntb_io* io, ntb_extent* extents, uint32_t room, uint32_t* count) {
    *count = 0;
    boot_sector boot;
    if (const int32_t error = read_boot_sector(*io, boot); error != 0) {
        return error;
    }
    uint8_t bytes[record_size_max];
    static_assert(record_logfile < mirrored_records_min);
    const std::span<uint8_t> record = std::span(bytes).first(boot.record_size);
    if (const int32_t error = read_mirrored_record(*io, boot, record_logfile, record); error != 0) {
        return error;
    }
    const record_view view(record);
    attribute_view data;
    const bool is_plain =
        view.in_use() && view.used() <= record.size() && find_plain_data(view, data) &&
        store_extents(data, boot, io->size / boot.cluster_size, extents, room, *count);
    return is_plain ? 0 : EINVAL;
}
