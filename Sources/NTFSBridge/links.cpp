#include "NTFSBridge/links.hpp"

#include "NTFSBridge/names.hpp"

namespace ntb {
namespace {

constexpr uint8_t interix_marker[interix_marker_size] = {'I', 'n', 't', 'x', 'L', 'N', 'K', 1};

c_string interix_target(ntfs_inode* inode) noexcept {
    const attribute_guard data = open_unnamed_data(inode);
    if (!data || !is_interix_link(inode, data.get())) {
        return nullptr;
    }
    ntfschar target[longest_interix_target + 1]; // the data may end in half a unit
    const s64 size = data->data_size - interix_marker_size;
    if (ntfs_attr_pread(data.get(), interix_marker_size, size, target) != size) {
        return nullptr;
    }
    return to_utf8(target, static_cast<int>(size / static_cast<s64>(sizeof(ntfschar))));
}

} // namespace

bool is_interix_link(ntfs_inode* inode, ntfs_attr* data) noexcept {
    if ((file_flags(inode) & FILE_ATTR_SYSTEM) == 0 || is_directory(inode)) {
        return false;
    }
    attribute_guard own;
    if (data == nullptr) {
        own = open_unnamed_data(inode);
        data = own.get();
    }
    uint8_t head[interix_marker_size];
    return data != nullptr && data->data_size > interix_marker_size &&
           data->data_size <= longest_interix_link &&
           ntfs_attr_pread(data, 0, sizeof head, head) == sizeof head &&
           std::memcmp(head, interix_marker, sizeof head) == 0;
}

bool is_link(ntfs_inode* inode) noexcept {
    return is_reparse_point(inode) || is_interix_link(inode);
}

c_string reparse_target(ntfs_inode* inode) noexcept {
    if (!is_reparse_point(inode)) {
        return nullptr;
    }
    c_string target = exact_relative_target(inode);
    return target ? std::move(target) : c_string(ntfs_make_symlink(inode, ""));
}

} // namespace ntb

using namespace ntb;

int32_t ntb_readlink(ntb_vol* vol, uint64_t ino, char** target) {
    inode_guard inode;
    if (const int32_t error = inode.open(vol->volume, ino); error != 0) {
        return error;
    }
    c_string text =
        is_reparse_point(inode.get()) ? reparse_target(inode.get()) : interix_target(inode.get());
    if (!text) {
        return EINVAL;
    }
    *target = text.release();
    return 0;
}
