// Where the content of a file is, for readers that fetch it from the device by themselves.
#include "NTFSBridge/device/block_io.hpp"
#include "NTFSBridge/open_file.hpp"
#include "NTFSBridge/volume.hpp"

using namespace ntb;

namespace {

// Whether a read of the range would be answered by the device alone, as it is.
bool is_on_device(const ntb_devctx& context, uint64_t offset, uint64_t length) noexcept {
    return is_within(offset, length, context.io.size) &&
           !context.cache.has_dirty(offset / page_cache::page_size,
                                    (offset + length - 1) / page_cache::page_size);
}

} // namespace

int32_t ntb_plan_read(ntb_vol* vol, uint64_t ino, uint64_t offset, uint64_t length,
                      ntb_extent* extents, uint32_t room, uint32_t* count) {
    *count = 0;
    // The library's volume may say what is not on the device, or the device not what is shown.
    if (vol->is_stale || vol->mirror) {
        return EAGAIN;
    }
    open_file file;
    if (const int32_t error = file.open(vol, ino); error != 0) {
        return error;
    }
    ntfs_attr* const data = file.data.get();
    const auto initialised = static_cast<uint64_t>(data->initialized_size);
    if (!NAttrNonResident(data) || data->data_flags != 0 || offset >= file.size()) {
        return EAGAIN;
    }
    const uint64_t end = offset + std::min(length, file.size() - offset);
    if (end > initialised) {
        return EAGAIN; // from there on the file reads as zeroes, whatever its clusters have
    }
    const uint64_t cluster = vol->volume->cluster_size;
    for (uint64_t at = offset; at < end;) {
        const runlist_element* const run = ntfs_attr_find_vcn(data, static_cast<VCN>(at / cluster));
        if (run == nullptr || run->lcn < 0 || run->length <= 0 || *count == room) {
            return EAGAIN;
        }
        const uint64_t run_at = static_cast<uint64_t>(run->vcn) * cluster;
        const uint64_t next = std::min(end, run_at + static_cast<uint64_t>(run->length) * cluster);
        const ntb_extent extent{static_cast<uint64_t>(run->lcn) * cluster + (at - run_at),
                                next - at};
        if (!is_on_device(*vol->context, extent.offset, extent.length)) {
            return EAGAIN;
        }
        extents[(*count)++] = extent;
        at = next;
    }
    return 0;
}

void ntb_note_reads(ntb_vol* vol, uint64_t calls, uint64_t bytes) {
    vol->stats.deviceReads += calls;
    vol->stats.readBytes += bytes;
}
