// Changing an inode's times, its hidden flag and its owner.
#include "NTFSBridge/operation.hpp"
#include "NTFSBridge/reparse.hpp"
#include "NTFSBridge/times.hpp"
#include "NTFSBridge/volume.hpp"
#include "NTFSBridge/wsl_metadata.hpp"

using namespace ntb;

namespace {

int32_t open_for_change(const ntb_vol* vol, uint64_t ino, inode_guard& inode) noexcept {
    return is_read_only(vol) ? EROFS : inode.open(vol->volume, ino);
}

// Has the record written and the copies of its times and flags in the directories' indexes too.
int32_t close_changed(inode_guard& inode) noexcept {
    ntfs_inode_mark_dirty(inode.get());
    NInoFileNameSetDirty(inode.get());
    return inode.close();
}

} // namespace

static int32_t change_times(ntb_vol* vol, uint64_t ino, const ntb_time* access,
                            const ntb_time* modify, const ntb_time* change, const ntb_time* birth) {
    inode_guard inode;
    if (const int32_t error = open_for_change(vol, ino, inode); error != 0) {
        return error;
    }
    const std::pair<const ntb_time*, ntfs_time*> times[] = {
        {access, &inode->last_access_time},
        {modify, &inode->last_data_change_time},
        {change, &inode->last_mft_change_time},
        {birth, &inode->creation_time},
    };
    for (const auto& [given, stored] : times) {
        if (given != nullptr) {
            *stored = to_ntfs_time(*given);
        }
    }
    return close_changed(inode);
}

int32_t ntb_set_times(ntb_vol* vol, uint64_t ino, const ntb_time* access, const ntb_time* modify,
                      const ntb_time* change, const ntb_time* birth) {
    return atomically(vol, [&] { return change_times(vol, ino, access, modify, change, birth); });
}

static int32_t change_hidden(ntb_vol* vol, uint64_t ino, int32_t hidden) {
    inode_guard inode;
    if (const int32_t error = open_for_change(vol, ino, inode); error != 0) {
        return error;
    }
    set_flag(inode.get(), FILE_ATTR_HIDDEN, hidden != 0);
    return close_changed(inode);
}

int32_t ntb_set_hidden(ntb_vol* vol, uint64_t ino, int32_t hidden) {
    return atomically(vol, [&] { return change_hidden(vol, ino, hidden); });
}

static int32_t change_owner(ntb_vol* vol, uint64_t ino, const ntb_owner& owner) {
    inode_guard inode;
    if (const int32_t error = open_for_change(vol, ino, inode); error != 0) {
        return error;
    }
    if (inode->mft_no < first_user_ino && inode->mft_no != FILE_root) {
        return EPERM;
    }
    reparse_point point;
    (void)point.read(inode.get()); // of a damaged one the type is told, too
    uint64_t device = 0;
    const uint32_t type = type_of(inode.get(), point, &device);
    if (const int32_t error = write_owner(vol, inode.get(), owner, type); error != 0) {
        (void)inode.close();
        return error;
    }
    ntfs_inode_update_times(inode.get(), NTFS_UPDATE_CTIME);
    return close_changed(inode);
}

int32_t ntb_set_owner(ntb_vol* vol, uint64_t ino, const ntb_owner* owner) {
    return atomically(vol, [&] { return change_owner(vol, ino, *owner); });
}
