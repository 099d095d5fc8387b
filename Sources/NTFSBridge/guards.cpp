#include "NTFSBridge/guards.hpp"

namespace ntb {
namespace {

// Closes an inode that cannot be written, giving its changes up. The library would keep it open,
// with nobody left who knows of it.
void discard(ntfs_inode* inode) noexcept {
    NInoClearDirty(inode);
    NInoAttrListClearDirty(inode);
    NInoFileNameClearDirty(inode);
    for (s32 i = 0; i < inode->nr_extents; ++i) {
        NInoClearDirty(inode->extent_nis[i]);
    }
    (void)ntfs_inode_real_close(inode); // writes nothing, so nothing fails
}

// The library writes a record's times to where the record says that they are, be it over the
// attribute's own header, and then follows what it finds there.
bool has_room_for_times(const ntfs_inode* inode) noexcept {
    const auto* const record = reinterpret_cast<const uint8_t*>(inode->mrec);
    ATTR_RECORD first;
    std::memcpy(&first, record + le16_to_cpu(inode->mrec->attrs_offset), sizeof first);
    return first.type == AT_STANDARD_INFORMATION && first.non_resident == 0 &&
           le16_to_cpu(first.value_offset) >= offsetof(ATTR_RECORD, resident_end) &&
           le16_to_cpu(first.value_offset) + uint64_t{le32_to_cpu(first.value_length)} <=
               le32_to_cpu(first.length);
}

// Index entries carry a copy of the file's sizes, which the library takes from the inode. It
// forgets the allocated size there when a value moves out of its record, as a write, a new stream
// or a longer name may make it do. Finds no data in damaged records and for directories, and leaves
// those as they are.
void refresh_sizes(ntfs_inode* inode) noexcept {
    attribute_search search(inode);
    if (is_directory(inode) || !search.find(AT_DATA, AT_UNNAMED)) {
        return;
    }
    const ATTR_RECORD& data = *search.found();
    s64 allocated = 0;
    if (data.non_resident == 0) {
        allocated = (s64{le32_to_cpu(data.value_length)} + 7) & ~s64{7};
    } else {
        const bool has_holes = (data.flags & (ATTR_COMPRESSION_MASK | ATTR_IS_SPARSE)) != 0;
        allocated = sle64_to_cpu(has_holes ? data.compressed_size : data.allocated_size);
    }
    if (inode->allocated_size != allocated) {
        inode->allocated_size = allocated;
        NInoFileNameSetDirty(inode);
    }
}

} // namespace

int32_t inode_guard::open(ntfs_volume* volume, uint64_t reference) noexcept {
    (void)close();
    const uint16_t sequence = MSEQNO(reference);
    errno = 0;
    // The library would check the sequence number too, but answers EIO as for a damaged record, and
    // not for an inode that is in its cache.
    inode_ = ntfs_inode_open(volume, MREF(reference));
    if (inode_ == nullptr) {
        const int32_t error = err_or(ENOENT);
        return error == ENOENT && sequence != 0 ? ESTALE : error;
    }
    if (sequence != 0 && sequence != sequence_of(inode_)) {
        (void)ntfs_inode_close(std::exchange(inode_, nullptr));
        return ESTALE;
    }
    if (!has_room_for_times(inode_)) {
        (void)ntfs_inode_close(std::exchange(inode_, nullptr));
        return EIO;
    }
    return 0;
}

int32_t inode_guard::close() noexcept {
    ntfs_inode* const inode = release();
    if (inode == nullptr) {
        return 0;
    }
    if (is_dirty(inode)) {
        refresh_sizes(inode);
    }
    errno = 0;
    if (is_dirty(inode) && ntfs_inode_sync(inode) != 0) {
        const int32_t error = err_or(EIO);
        // A second try may still save the change, but the caller hears of the first.
        if (ntfs_inode_sync(inode) != 0) {
            discard(inode);
            return error;
        }
        (void)ntfs_inode_close(inode);
        return error;
    }
    errno = 0;
    return ntfs_inode_close(inode) == 0 ? 0 : err_or(EIO);
}

int32_t inode_guard::close_in(ntfs_inode* directory) noexcept {
    ntfs_inode* const inode = release();
    if (inode == nullptr) {
        return 0;
    }
    if (is_dirty(inode)) {
        refresh_sizes(inode);
    }
    errno = 0;
    if (ntfs_inode_close_in_dir(inode, directory) == 0) {
        return 0;
    }
    // The library leaves the inode open when it cannot be written.
    const int32_t error = err_or(EIO);
    if (ntfs_inode_close_in_dir(inode, directory) != 0) {
        discard(inode);
    }
    return error;
}

} // namespace ntb
