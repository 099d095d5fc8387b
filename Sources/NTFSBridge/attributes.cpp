// What one inode is like: ntb_getattr.
#include "NTFSBridge/links.hpp"
#include "NTFSBridge/times.hpp"
#include "NTFSBridge/volume.hpp"

using namespace ntb;

namespace {

uint32_t flags_of(const ntfs_inode* inode) noexcept {
    const uint32_t found = file_flags(inode);
    uint32_t flags = 0;
    flags |= (found & FILE_ATTR_HIDDEN) != 0 ? NTB_FLAG_HIDDEN : 0;
    flags |= (found & FILE_ATTR_READONLY) != 0 ? NTB_FLAG_READ_ONLY : 0;
    flags |= (found & FILE_ATTR_SYSTEM) != 0 ? NTB_FLAG_SYSTEM : 0;
    flags |= (found & FILE_ATTR_COMPRESSED) != 0 ? NTB_FLAG_COMPRESSED : 0;
    flags |= is_reparse_point(inode) ? NTB_FLAG_REPARSE_POINT : 0;
    return flags;
}

bool describe_reparse_link(ntfs_inode* inode, ntb_attr& out) noexcept {
    const c_string target = reparse_target(inode);
    if (!target) {
        return false;
    }
    out.type = NTB_TYPE_SYMLINK;
    out.size = std::strlen(target.get());
    return true;
}

void describe_directory(ntfs_inode* inode, ntb_attr& out) noexcept {
    out.type = NTB_TYPE_DIRECTORY;
    out.link_count = 2;
    const attribute_guard index(ntfs_attr_open(inode, AT_INDEX_ALLOCATION, NTFS_INDEX_I30, 4));
    if (index) {
        out.size = static_cast<uint64_t>(index->data_size);
        out.alloc_size = static_cast<uint64_t>(index->allocated_size);
    }
    describe_reparse_link(inode, out);
}

void describe_file(ntfs_inode* inode, ntb_attr& out) noexcept {
    out.type = NTB_TYPE_FILE;
    out.link_count = std::max<uint32_t>(le16_to_cpu(inode->mrec->link_count), 1);
    if (describe_reparse_link(inode, out)) {
        return;
    }
    const attribute_guard data = open_unnamed_data(inode);
    if (!data) {
        return;
    }
    const bool has_holes = (data->data_flags & (ATTR_COMPRESSION_MASK | ATTR_IS_SPARSE)) != 0;
    out.size = static_cast<uint64_t>(data->data_size);
    out.alloc_size =
        static_cast<uint64_t>(has_holes ? data->compressed_size : data->allocated_size);
    if (is_interix_link(inode, data.get())) {
        out.type = NTB_TYPE_SYMLINK;
        out.size = static_cast<uint64_t>(data->data_size - interix_marker_size) / sizeof(ntfschar);
    }
}

} // namespace

int32_t ntb_getattr(ntb_vol* vol, uint64_t ino, ntb_attr* out) {
    inode_guard inode;
    if (const int32_t error = inode.open(vol->volume, ino); error != 0) {
        return error;
    }
    *out = {};
    out->ino = inode->mft_no;
    out->access_time = to_unix_time(inode->last_access_time);
    out->modify_time = to_unix_time(inode->last_data_change_time);
    out->change_time = to_unix_time(inode->last_mft_change_time);
    out->birth_time = to_unix_time(inode->creation_time);
    out->flags = flags_of(inode.get());
    if (is_directory(inode.get())) {
        describe_directory(inode.get(), *out);
    } else {
        describe_file(inode.get(), *out);
    }
    return 0;
}
