// What is known about a volume as a whole: state, serial, label, space, name rule, counters.
#include "NTFSBridge/device/device_table.hpp"
#include "NTFSBridge/names.hpp"
#include "NTFSBridge/operation.hpp"
#include "NTFSBridge/transfer.hpp"
#include "NTFSBridge/volume.hpp"
#include "platform/assert.hpp"

#include <array>
#include <bit>

using namespace ntb;

namespace {

constexpr int label_units_max = 128; // UTF-16 units, as the volume-name attribute allows

uint64_t at_least_zero(s64 count) noexcept {
    return count < 0 ? 0 : static_cast<uint64_t>(count);
}

// How many file records fit into the free clusters.
uint64_t records_in(const ntfs_volume* volume, uint64_t clusters) noexcept {
    const int shift = volume->cluster_size_bits - volume->mft_record_size_bits;
    return shift > 0 ? clusters << shift : clusters >> -shift;
}

} // namespace

int32_t ntb_is_readonly(ntb_vol* vol) {
    return is_read_only(vol) ? 1 : 0;
}

uint64_t ntb_serial(ntb_vol* vol) {
    return vol->serial;
}

char* ntb_label(ntb_vol* vol) {
    const char* const label = vol->volume->vol_name;
    return copy_for_caller(label != nullptr ? label : "").release();
}

static int32_t change_label(ntb_vol* vol, const char* label) {
    if (is_read_only(vol)) {
        return EROFS;
    }
    utf16_text text;
    if (const int32_t error = text.assign(label); error != 0) {
        return error;
    }
    if (text.length() > label_units_max) {
        return ENAMETOOLONG;
    }
    c_string copy = copy_for_caller(label);
    if (!copy) {
        return ENOMEM;
    }
    errno = 0;
    if (ntfs_volume_rename(vol->volume, text.units(), text.length()) != 0) {
        return err_or(EIO);
    }
    std::free(vol->volume->vol_name);
    vol->volume->vol_name = copy.release();
    // An empty label is only in the open record so far, where no flush would find it.
    return write_open_records(vol);
}

int32_t ntb_set_label(ntb_vol* vol, const char* label) {
    return atomically(vol, [&] { return change_label(vol, label); });
}

int32_t ntb_statfs_get(ntb_vol* vol, ntb_statfs* out) {
    const ntfs_volume* const volume = vol->volume;
    *out = {};
    out->clusterSize = volume->cluster_size;
    out->totalClusters = at_least_zero(volume->nr_clusters);
    // A damaged bitmap can have more bits than the volume has clusters.
    out->freeClusters = std::min(at_least_zero(volume->free_clusters), out->totalClusters);
    out->freeFiles =
        records_in(volume, out->freeClusters) + at_least_zero(volume->free_mft_records);
    const uint64_t bitmap_bytes =
        volume->mftbmp_na != nullptr ? at_least_zero(volume->mftbmp_na->allocated_size) : 0;
    out->totalFiles = bitmap_bytes * 8 + out->freeFiles;
    return 0;
}

int32_t ntb_count_files(ntb_vol* vol, uint64_t* count) {
    *count = 0;
    ntfs_attr* const bitmap = vol->volume->mftbmp_na;
    std::array<uint64_t, 1024> words;
    for (uint64_t offset = 0; bitmap != nullptr;) {
        words.fill(0);
        uint64_t done = 0;
        const int32_t error = read_stream(bitmap, offset, words.data(), sizeof words, &done);
        if (error != 0 || done == 0) {
            return error;
        }
        for (const uint64_t word : words) {
            *count += static_cast<uint64_t>(std::popcount(word));
        }
        offset += done;
    }
    return 0;
}

void ntb_set_windows_names(ntb_vol* vol, int32_t on) {
    vol->windows_names = on != 0 ? 1 : 0;
}

int32_t ntb_windows_names(ntb_vol* vol) {
    return static_cast<int32_t>(vol->windows_names);
}

void ntb_set_ordered_writes(ntb_vol* vol, int32_t on) {
    vol->ordered_writes = on != 0;
}

void ntb_set_reads_owners(ntb_vol* vol, int32_t on) {
    vol->reads_owners = on != 0;
}

void ntb_get_stats(ntb_vol* vol, ntb_stats* out) {
    *out = vol->stats;
}

void ntb_check_invariants(ntb_vol* vol) {
    TAVELIN_ASSERT(vol->volume != nullptr);
    TAVELIN_ASSERT(!vol->context->undo.is_open());
    TAVELIN_ASSERT(vol->context->cache.is_consistent());
    TAVELIN_ASSERT(vol->is_stale == (vol->volume->dev->d_ops == &ntb_discarding_ops));
}

void ntb_populate_cache(ntb_vol* vol) {
    vol->context->cache.populate();
}
