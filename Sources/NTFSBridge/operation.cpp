#include "NTFSBridge/operation.hpp"

#include "NTFSBridge/device/device_table.hpp"
#include "NTFSBridge/usn_journal.hpp"
#include "platform/assert.hpp"

namespace ntb {
namespace {

// Opens the library's volume again over the same cache, and drops the old one with whatever it
// still wants to write. On failure the old one stays, for reading only.
int32_t reopen(ntb_vol* vol) noexcept {
    ntfs_volume* const old = vol->volume;
    old->dev->d_ops = &ntb_discarding_ops;
    vol->volume = nullptr;
    const int32_t error = open_library_volume(*vol, &vol->free_before);
    vol->is_stale = error != 0 || vol->volume == nullptr;
    if (vol->is_stale) {
        vol->volume = old;
        return error != 0 ? error : EIO;
    }
    // What was written before the operation still awaits its sync.
    NDevSetDirty(vol->volume->dev);
    (void)ntfs_umount(old, TRUE); // nothing it writes is kept, so nothing it says matters
    return 0;
}

void take_back(ntb_vol* vol) noexcept {
    // From here on the old volume cannot write: it still holds changed inodes.
    vol->volume->dev->d_ops = &ntb_discarding_ops;
    ntb_devctx& context = *vol->context;
    // A page that can neither be cached nor written is given up: the device is failing, and has
    // reported it.
    (void)context.undo.restore(context.io, *context.stats);
    (void)reopen(vol);
}

// For the split of an index on three levels with a new root, an attribute list, its extension
// records and 16 new records of $MFT, in clusters of 4096 bytes.
constexpr uint64_t reserve_bytes = 64u << 10;
// The same in clusters that are larger than what is put into each.
constexpr uint64_t reserve_clusters_min = 8;

} // namespace

int32_t admit(const ntb_vol* vol, uint64_t bytes) noexcept {
    const uint64_t cluster = vol->volume->cluster_size;
    const uint64_t reserve = std::max(reserve_bytes / cluster, reserve_clusters_min);
    const auto available = static_cast<uint64_t>(std::max<s64>(vol->volume->free_clusters, 0));
    return available >= reserve && bytes / cluster <= available - reserve ? 0 : ENOSPC;
}

int32_t begin_operation(ntb_vol* vol) noexcept {
    if (vol->is_stale && reopen(vol) != 0) {
        return EIO;
    }
    // Before anything is changed, so that an error of the device leaves nothing half done.
    if (const int32_t error = is_read_only(vol) ? 0 : find_usn_journal(vol); error != 0) {
        return error;
    }
    if (vol->context->is_caching()) {
        vol->free_before = {.clusters = vol->volume->free_clusters,
                            .records = vol->volume->free_mft_records};
        vol->context->undo.begin();
    }
    return 0;
}

int32_t end_operation(ntb_vol* vol, int32_t error, bool* taken_back) noexcept {
    undo_log& undo = vol->context->undo;
    if (taken_back != nullptr) {
        *taken_back = false;
    }
    // A volume without a cache keeps nothing that could say whether there was a change.
    if (error == 0 && !vol->is_usn_stamped && (!undo.is_open() || undo.has_changes())) {
        // The change has been made, whatever comes of this. The next one tries again.
        vol->is_usn_stamped = stamp_usn_journal(vol) == 0;
    }
    if (!undo.is_open()) {
        return error;
    }
    if (error != 0 && undo.has_changes() && undo.is_complete()) {
        take_back(vol);
        if (taken_back != nullptr) {
            *taken_back = true;
        }
    }
    undo.end();
    return error;
}

} // namespace ntb
