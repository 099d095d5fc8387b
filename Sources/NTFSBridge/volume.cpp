// Recognising, mounting and unmounting a volume, and pushing its changes to the device.
#include "NTFSBridge/volume.hpp"

#include "NTFSBridge/device/block_io.hpp"
#include "NTFSBridge/device/device_table.hpp"
#include "NTFSBridge/inode_cache.hpp"
#include "NTFSBridge/ondisk/boot_sector.hpp"
#include "NTFSBridge/ondisk/mft_mirror.hpp"

#include <mutex>
#include <new>
#include <utility>
#include <vector>

namespace ntb {
namespace {

// The volume's mount point: links with an absolute target are resolved against it by the library,
// which frees neither it nor checks that there is one.
constexpr const char* no_mount_point = "";

// Goes by the name and the signature alone, not the geometry, which the library judges.
bool read_serial(const ntb_io& io, uint64_t& serial) noexcept {
    uint8_t sector[boot_sector_bytes];
    if (io.size < sizeof sector || io_read(io, nullptr, sector, 0, sizeof sector) != 0 ||
        !is_ntfs_boot_sector(sector)) {
        return false;
    }
    serial = volume_serial(sector);
    return true;
}

// What the library keeps per process, set once. Its messages are never shown: failures are known
// by their errno. On macOS it would convert names between Unicode forms, so that a name read back
// differed from the one created; names pass unchanged instead.
void set_library_up() noexcept {
    static std::once_flag once;
    std::call_once(once, [] {
        ntfs_log_set_handler(ntfs_log_handler_null);
#ifdef __APPLE__
        (void)ntfs_macosx_normalize_filenames(0); // 0 is always a valid argument
#endif
    });
}

struct device_free {
    void operator()(ntfs_device* device) const noexcept {
        if (NDevOpen(device)) {
            (void)device->d_ops->close(device); // the mount that failed is what gets reported
        }
        (void)ntfs_device_free(device);
    }
};

// The library takes a damaged boot sector's word for the number of clusters.
bool has_possible_size(const ntfs_volume& volume) noexcept {
    return volume.nr_clusters > 0 && volume.cluster_size > 0 &&
           volume.nr_clusters <= INT64_MAX / volume.cluster_size;
}

// The library reads both bitmaps to their ends to count what is free, and they may say that they
// are as long as a number holds. Twice what the device has clusters and records for, and some, is
// no less than a sound volume may have.
bool has_possible_bitmaps(const ntfs_volume& volume, uint64_t device_size) noexcept {
    constexpr uint64_t slack = 1 << 20; // bytes
    const auto is_possible = [&](const ntfs_attr* bitmap, uint64_t unit) {
        return static_cast<uint64_t>(bitmap->data_size) <= device_size / unit / 4 + slack;
    };
    return is_possible(volume.lcnbmp_na, volume.cluster_size) &&
           is_possible(volume.mftbmp_na, volume.mft_record_size);
}

// Mounts a volume with a context of its own, so that nothing stays cached from an earlier try.
ntb_vol* mount_once(const ntb_io& io, int32_t read_only, int32_t& error) noexcept {
    error = 0;
    std::unique_ptr<ntb_vol> vol(new (std::nothrow) ntb_vol);
    if (!vol) {
        error = ENOMEM;
        return nullptr;
    }
    vol->context.reset(new (std::nothrow) ntb_devctx(io, read_only != 0, vol->stats));
    if (!vol->context) {
        error = ENOMEM;
        return nullptr;
    }
    vol->io = io;
    vol->read_only = read_only != 0 ? 1 : 0;
    if (!read_serial(io, vol->serial)) {
        error = EINVAL;
        return nullptr;
    }
    (void)vol->context->cache.enable(); // without memory for it the volume works uncached
    error = open_library_volume(*vol, nullptr);
    return error == 0 ? vol.release() : nullptr;
}

// A power cut between two writes can leave a volume that the library refuses only because $MFTMirr
// differs from $MFT. Whether that is all that is wrong is tried first on a view of the device, so
// that a volume that then still does not mount is not written to.
bool end_mirror_mismatch(const ntb_io& io) noexcept {
    mft_mirror mirror(io);
    if (!mirror.plan()) {
        return false;
    }
    const ntb_io view = mirror.overlay_io();
    int32_t error = 0;
    ntb_vol* const trial = mount_once(view, 0, error);
    if (trial == nullptr || ntb_is_readonly(trial) != 0) {
        (void)ntb_umount(trial);
        return false;
    }
    return ntb_umount(trial) == 0 && mirror.commit() == 0;
}

// The same volume mounted for reading: it keeps the view, and the device is left as it is.
ntb_vol* mount_view(const ntb_io& io, int32_t& error) noexcept {
    std::unique_ptr<mft_mirror> mirror(new (std::nothrow) mft_mirror(io));
    if (!mirror || !mirror->plan()) {
        return nullptr; // the first mount's error stands
    }
    ntb_vol* const vol = mount_once(mirror->overlay_io(), 1, error);
    if (vol != nullptr) {
        vol->mirror = std::move(mirror);
    }
    return vol;
}

int32_t update_entries(ntb_vol* vol) noexcept {
    return vol->is_stale ? 0 : vol->outdated.update(vol->volume); // stale, it would write nothing
}

// Has the device context watch $Bitmap. Without memory, or where it is not a plain run list, all
// file data goes through the journal.
void watch_bitmap(ntb_vol& vol) noexcept {
    ntfs_attr* const bitmap = vol.volume->lcnbmp_na;
    const auto cluster = static_cast<uint64_t>(vol.volume->cluster_size);
    if (vol.read_only != 0 || ntfs_attr_map_whole_runlist(bitmap) != 0) {
        return;
    }
    try {
        std::vector<free_watch::range> ranges;
        for (const runlist_element* run = bitmap->rl; run->length != 0; ++run) {
            if (run->lcn < 0) {
                return;
            }
            ranges.push_back({static_cast<uint64_t>(run->lcn) * cluster,
                              static_cast<uint64_t>(run->length) * cluster});
        }
        vol.context->freed.watch(std::move(ranges));
    } catch (const std::bad_alloc&) {
        return;
    }
}

} // namespace

int32_t open_library_volume(ntb_vol& vol, const free_counts* known_free) noexcept {
    set_library_up();
    errno = 0;
    std::unique_ptr<ntfs_device, device_free> device(
        ntfs_device_alloc("ntb", 0, &ntb_dev_ops, vol.context.get()));
    if (!device) {
        return err_or(ENOMEM);
    }
    // RECOVER resets an unclean journal. Without IGNORE_HIBERFILE the library refuses to write to
    // a volume that Windows has hibernated.
    errno = 0;
    vol.volume =
        ntfs_device_mount(device.get(), vol.read_only != 0 ? NTFS_MNT_RDONLY : NTFS_MNT_RECOVER);
    if (vol.volume == nullptr) {
        return err_or(EIO);
    }
    (void)device.release(); // freed by ntfs_umount from here on
    vol.volume->abs_mnt_point = no_mount_point;
    ntfs_create_lru_caches(vol.volume);
    enlarge_inode_cache(vol.volume);
    ntfs_set_shown_files(vol.volume, FALSE, TRUE, FALSE);
    if (known_free != nullptr) {
        vol.volume->free_clusters = known_free->clusters;
        vol.volume->free_mft_records = known_free->records;
        // Without this flag the library leaves its counts as they are, whatever is allocated.
        NVolSetFreeSpaceKnown(vol.volume);
        watch_bitmap(vol);
        return 0;
    }
    errno = 0;
    if (!has_possible_size(*vol.volume) || !has_possible_bitmaps(*vol.volume, vol.io.size) ||
        ntfs_volume_get_free_space(vol.volume) != 0) {
        const int32_t error = err_or(EIO);
        (void)ntfs_umount(std::exchange(vol.volume, nullptr), TRUE);
        return error;
    }
    watch_bitmap(vol);
    return 0;
}

int32_t open_directory(const ntb_vol* vol, uint64_t ino, inode_guard& out) noexcept {
    if (const int32_t error = out.open(vol->volume, ino); error != 0) {
        return error;
    }
    return is_directory(out.get()) ? 0 : ENOTDIR;
}

int32_t write_open_records(const ntb_vol* vol) noexcept {
    const ntfs_volume* const volume = vol->volume;
    int32_t error = 0;
    for (ntfs_inode* const inode : {volume->vol_ni, volume->lcnbmp_ni, volume->mft_ni}) {
        errno = 0;
        if (is_dirty(inode) && ntfs_inode_sync(inode) != 0) {
            error = first_error(error, err_or(EIO));
        }
    }
    return error;
}

int32_t sync_device(ntb_vol* vol) noexcept {
    const int32_t late = update_entries(vol);
    const int32_t error = first_error(late, write_open_records(vol));
    errno = 0;
    const bool is_synced = ntb_dev_ops.sync(vol->volume->dev) == 0;
    const int32_t result = first_error(error, is_synced ? 0 : err_or(EIO));
    if (result == 0) {
        vol->context->freed.reset();
    }
    return result;
}

} // namespace ntb

using namespace ntb;

int32_t ntb_probe(const ntb_io* io, uint64_t* serial) {
    uint64_t found = 0;
    if (!read_serial(*io, found)) {
        return EINVAL;
    }
    if (serial != nullptr) {
        *serial = found;
    }
    return 0;
}

ntb_vol* ntb_mount(const ntb_io* io, int32_t read_only, int32_t* error) {
    ntb_vol* const vol = mount_once(*io, read_only, *error);
    if (vol != nullptr || *error != EIO) {
        return vol;
    }
    if (read_only != 0) {
        return mount_view(*io, *error);
    }
    return end_mirror_mismatch(*io) ? mount_once(*io, 0, *error) : nullptr;
}

int32_t ntb_umount(ntb_vol* vol) {
    if (vol == nullptr) {
        return 0;
    }
    const std::unique_ptr<ntb_vol> owner(vol);
    // A stale volume writes nothing, and so would leave the cache as it is.
    const int32_t error = vol->is_stale ? sync_device(vol) : update_entries(vol);
    errno = 0;
    return first_error(error, ntfs_umount(vol->volume, FALSE) == 0 ? 0 : err_or(EIO));
}

int32_t ntb_sync(ntb_vol* vol) {
    return vol->read_only != 0 ? 0 : sync_device(vol);
}

int32_t ntb_freed_since_sync(const ntb_vol* vol) {
    return vol->context->freed.has_seen() ? 1 : 0;
}

void ntb_get_backlog(const ntb_vol* vol, ntb_backlog* out) {
    const page_cache& cache = vol->context->cache;
    *out = {.metadata = cache.dirty_count() - cache.file_data_count(),
            .file_data = cache.file_data_count(),
            .deferred = vol->outdated.page_count(vol->volume)};
}

int32_t ntb_is_dirty(const ntb_vol* vol) {
    // The second is all that tells of writes that go around the cache, or have none.
    return vol->context->cache.dirty_count() > 0 || NDevDirty(vol->volume->dev) ? 1 : 0;
}
