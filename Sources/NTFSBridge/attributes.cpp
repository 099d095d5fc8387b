// What one inode is like: ntb_getattr.
#include "NTFSBridge/link_path.hpp"
#include "NTFSBridge/links.hpp"
#include "NTFSBridge/system_compression.hpp"
#include "NTFSBridge/times.hpp"
#include "NTFSBridge/volume.hpp"
#include "NTFSBridge/wsl_metadata.hpp"

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

void describe_directory(ntfs_inode* inode, ntb_attr& out) noexcept {
    out.link_count = 2;
    const attribute_guard index(ntfs_attr_open(inode, AT_INDEX_ALLOCATION, NTFS_INDEX_I30, 4));
    if (index) {
        out.size = static_cast<uint64_t>(index->data_size);
        out.alloc_size = static_cast<uint64_t>(index->allocated_size);
    }
}

// Of the unnamed data, where there is any. The library reads the sizes when it opens an inode and
// keeps them up to date for the directories' entries. It does so for a file that has just been made
// only from its first write on.
void describe_sizes(ntfs_inode* inode, ntb_attr& out) noexcept {
    if (test_nino_flag(inode, KnownSize)) {
        out.size = static_cast<uint64_t>(inode->data_size);
        out.alloc_size = static_cast<uint64_t>(inode->allocated_size);
        return;
    }
    if (const attribute_guard data = open_unnamed_data(inode)) {
        out.size = static_cast<uint64_t>(data->data_size);
        out.alloc_size = static_cast<uint64_t>(allocated_size_of(data.get()));
    }
}

void describe_file(ntfs_inode* inode, const reparse_point& point, ntb_attr& out) noexcept {
    out.link_count = std::max<uint32_t>(le16_to_cpu(inode->mrec->link_count), 1);
    out.data_state = data_state_of(inode, point);
    describe_sizes(inode, out);
    if (out.data_state == NTB_DATA_SYSTEM_COMPRESSED) {
        out.alloc_size += compressed_allocation(inode);
    }
}

// After describe_file: an Interix link's target is in its data.
void describe_link(ntfs_inode* inode, const reparse_point& point, ntb_attr& out) noexcept {
    if (!point.exists()) {
        out.size = (out.size - interix_marker_size) / sizeof(ntfschar);
        return;
    }
    if (link_path(point).form() == link_path::kind::of_volume) {
        out.flags |= NTB_FLAG_VOLUME_LINK;
    }
    const c_string target = link_target(inode, point, target_form::in_mount);
    out.size = target ? std::strlen(target.get()) : 0;
    out.alloc_size = 0;
    out.data_state = NTB_DATA_HERE;
}

} // namespace

int32_t ntb_getattr(ntb_vol* vol, uint64_t ino, ntb_attr* out) {
    inode_guard inode;
    if (const int32_t error = inode.open(vol->volume, ino); error != 0) {
        return error;
    }
    *out = {};
    out->ino = inode->mft_no;
    out->seq = sequence_of(inode.get());
    out->access_time = to_unix_time(inode->last_access_time);
    out->modify_time = to_unix_time(inode->last_data_change_time);
    out->change_time = to_unix_time(inode->last_mft_change_time);
    out->birth_time = to_unix_time(inode->creation_time);
    out->flags = flags_of(inode.get());
    reparse_point point;
    (void)point.read(inode.get()); // of a damaged one, whatever could be read is told
    out->reparse_tag = point.tag();
    out->type = type_of(inode.get(), point, &out->device);
    if (is_directory(inode.get())) {
        describe_directory(inode.get(), *out);
    } else {
        describe_file(inode.get(), point, *out);
    }
    if (vol->reads_owners) {
        out->owner = read_wsl_metadata(inode.get()).owner;
    }
    if (out->type == NTB_TYPE_SYMLINK) {
        describe_link(inode.get(), point, *out);
    }
    return 0;
}
