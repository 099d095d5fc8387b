#include "NTFSBridge/guards.hpp"

namespace ntb {

int32_t inode_guard::open(ntfs_volume* volume, uint64_t ino) noexcept {
    (void)close();
    errno = 0;
    inode_ = ntfs_inode_open(volume, ino);
    return inode_ != nullptr ? 0 : err_or(ENOENT);
}

int32_t inode_guard::close() noexcept {
    if (inode_ == nullptr) {
        return 0;
    }
    errno = 0;
    return ntfs_inode_close(release()) == 0 ? 0 : err_or(EIO);
}

int32_t inode_guard::close_in(ntfs_inode* directory) noexcept {
    if (inode_ == nullptr) {
        return 0;
    }
    errno = 0;
    return ntfs_inode_close_in_dir(release(), directory) == 0 ? 0 : err_or(EIO);
}

} // namespace ntb
