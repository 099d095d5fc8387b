// Relative symbolic links of Windows whose target exists just as it is written.
//
// The library would resolve them too, correcting the case of names on the way, but each time it
// loses the last directory it opened. So only the links that need correcting are left to it.
#include "NTFSBridge/links.hpp"
#include "NTFSBridge/names.hpp"

#include <new>

namespace ntb {
namespace {

const ntfschar separator = const_cpu_to_le16('\\');
const ntfschar slash = const_cpu_to_le16('/');
const ntfschar dot = const_cpu_to_le16('.');

// The data of a symbolic link's reparse point; the names follow in the same attribute.
struct symlink_data {
    le16 name_offset; // bytes from the end of this structure, of the name that counts
    le16 name_length; // bytes
    le16 print_name_offset;
    le16 print_name_length;
    le32 flags;
};
constexpr uint32_t relative_flag = 1;

struct path {
    std::unique_ptr<ntfschar[]> units;
    int length = 0;
};

// The target as Windows wrote it; empty when the reparse point is no relative symbolic link.
path read_relative_path(ntfs_inode* link) noexcept {
    const std::unique_ptr<REPARSE_POINT, c_free> point(ntfs_get_reparse_point(link));
    symlink_data data = {};
    if (!point || point->reparse_tag != IO_REPARSE_TAG_SYMLINK) {
        return {};
    }
    const size_t size = le16_to_cpu(point->reparse_data_length);
    if (size < sizeof data) {
        return {};
    }
    std::memcpy(&data, point->reparse_data, sizeof data);
    const size_t start = sizeof data + le16_to_cpu(data.name_offset);
    const size_t length = le16_to_cpu(data.name_length);
    if ((le32_to_cpu(data.flags) & relative_flag) == 0 || length == 0 || start + length > size) {
        return {};
    }
    path found;
    found.length = static_cast<int>(length / sizeof(ntfschar));
    found.units.reset(new (std::nothrow) ntfschar[static_cast<size_t>(found.length)]);
    if (!found.units) {
        return {};
    }
    std::memcpy(found.units.get(), point->reparse_data + start,
                static_cast<size_t>(found.length) * sizeof(ntfschar));
    return found;
}

// Follows the path from the link's directory to its end, or to where it leaves this volume's
// directories for a file or another link. False when a name on the way is not there as written.
bool exists_as_written(ntfs_inode* link, const path& target) noexcept {
    inode_guard directory(ntfs_dir_parent_inode(link));
    for (int at = 0; directory && at < target.length;) {
        const ntfschar* const name = &target.units[static_cast<size_t>(at)];
        const ntfschar* const end = target.units.get() + target.length;
        const auto length = static_cast<int>(std::find(name, end, separator) - name);
        at += length + 1;
        if (length == 2 && name[0] == dot && name[1] == dot) {
            if (directory->mft_no != FILE_root) {
                directory = inode_guard(ntfs_dir_parent_inode(directory.get()));
            }
            continue;
        }
        const u64 found = length == 0 ? static_cast<u64>(-1)
                                      : ntfs_inode_lookup_by_name(directory.get(), name, length);
        if (found == static_cast<u64>(-1) || MREF(found) == directory->mft_no) {
            return false;
        }
        if (at >= target.length || MREF(found) == link->mft_no) {
            return true;
        }
        inode_guard next;
        if (next.open(link->vol, MREF(found)) != 0) {
            return false;
        }
        if (!is_directory(next.get()) || is_reparse_point(next.get())) {
            return true;
        }
        directory = std::move(next);
    }
    return static_cast<bool>(directory);
}

} // namespace

c_string exact_relative_target(ntfs_inode* link) noexcept {
    const path target = read_relative_path(link);
    if (target.length == 0 || !exists_as_written(link, target)) {
        return nullptr;
    }
    std::replace(target.units.get(), target.units.get() + target.length, separator, slash);
    return to_utf8(target.units.get(), target.length);
}

} // namespace ntb
