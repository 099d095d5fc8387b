#include "NTFSBridge/outdated_entries.hpp"

#include "NTFSBridge/ntb.h"

namespace ntb {

void outdated_entries::defer(ntfs_inode* inode) noexcept {
    uint64_t& place = references_[inode->mft_no % places];
    const uint64_t reference = MK_MREF(inode->mft_no, sequence_of(inode));
    // A former file of the same record is gone, and its entries with it.
    if ((place != 0 && MREF(place) != inode->mft_no) ||
        le16_to_cpu(inode->mrec->link_count) > names_max) {
        return;
    }
    count_ += place == 0 ? 1 : 0;
    place = reference;
    NInoFileNameClearDirty(inode);
}

uint64_t outdated_entries::page_count(const ntfs_volume* volume) const noexcept {
    constexpr uint64_t page = NTB_PAGE_BYTES;
    // An index block begins at a cluster, and so perhaps inside a page.
    const uint64_t of_block =
        (volume->indx_record_size + page - 1) / page + (volume->cluster_size < page ? 1 : 0);
    const uint64_t of_record = (volume->mft_record_size + page - 1) / page;
    return count_ * (of_record + names_max * of_block);
}

int32_t outdated_entries::update(ntfs_volume* volume) noexcept {
    int32_t result = 0;
    for (uint64_t& place : references_) {
        if (count_ == 0) {
            break;
        }
        const uint64_t reference = std::exchange(place, 0);
        if (reference == 0) {
            continue;
        }
        --count_;
        inode_guard inode;
        const int32_t error = inode.open(volume, reference);
        if (error == ENOENT || error == ESTALE) {
            continue; // removed meanwhile
        }
        result = first_error(result, error);
        if (error == 0) {
            ntfs_inode_mark_dirty(inode.get());
            NInoFileNameSetDirty(inode.get());
            result = first_error(result, inode.close());
        }
    }
    return result;
}

} // namespace ntb
