#include "NTFSBridge/links.hpp"

#include "NTFSBridge/link_path.hpp"
#include "NTFSBridge/names.hpp"

#include <new>
#include <string>

namespace ntb {
namespace {

constexpr uint8_t interix_marker[interix_marker_size] = {'I', 'n', 't', 'x', 'L', 'N', 'K', 1};
constexpr size_t wsl_header_size = 4; // of a link's data, before its target in UTF-8
constexpr uint32_t wsl_version = 2;

c_string interix_target(ntfs_inode* inode) noexcept {
    const attribute_guard data = open_unnamed_data(inode);
    if (!data || !is_interix_link(inode, data.get())) {
        return nullptr;
    }
    ntfschar target[interix_target_units_max + 1]; // the data may end in half a unit
    const s64 size = data->data_size - interix_marker_size;
    if (ntfs_attr_pread(data.get(), interix_marker_size, size, target) != size) {
        return nullptr;
    }
    return to_utf8(target, static_cast<int>(size / static_cast<s64>(sizeof(ntfschar))));
}

// The target of a link of WSL; empty when it is none, or damaged.
std::string_view wsl_target(const reparse_point& point) noexcept {
    le32 version = {};
    if (point.tag() != NTB_TAG_LX_SYMLINK || point.data().size() <= wsl_header_size) {
        return {};
    }
    std::memcpy(&version, point.data().data(), sizeof version);
    const std::string_view target(reinterpret_cast<const char*>(point.data().data()) +
                                      wsl_header_size,
                                  point.data().size() - wsl_header_size);
    const bool is_sound =
        le32_to_cpu(version) == wsl_version && target.find('\0') == std::string_view::npos;
    return is_sound ? target : std::string_view();
}

// How many directories lie between an inode and the root; negative when that cannot be told.
int depth_of(ntfs_inode* inode) noexcept {
    inode_guard directory(ntfs_dir_parent_inode(inode));
    int depth = 0;
    while (directory && directory->mft_no != FILE_root && depth < directory_depth_max) {
        directory = inode_guard(ntfs_dir_parent_inode(directory.get()));
        ++depth;
    }
    return directory && directory->mft_no == FILE_root ? depth : -1;
}

// A path from the volume's root: "/a/b", or the same from the link's directory.
std::string path_text(std::string_view path, ntfs_inode* link, target_form form) {
    std::string text;
    const int depth = form == target_form::in_mount ? depth_of(link) : -1;
    for (int i = 0; i < depth; ++i) {
        text += "../";
    }
    for (size_t start = 0; start < path.size();) {
        const size_t end = std::min(path.find('\\', start), path.size());
        if (end > start) {
            text += text.empty() || text.back() == '/' ? "" : "/";
            text.append(path.substr(start, end - start));
        }
        start = end + 1;
    }
    if (depth < 0) {
        return "/" + text;
    }
    if (text.ends_with('/')) {
        text.pop_back(); // the way to the root itself
    }
    return text.empty() ? "." : text;
}

c_string windows_target(ntfs_inode* link, const reparse_point& point, target_form form) noexcept {
    link_path path(point);
    if (path.form() == link_path::kind::none) {
        return nullptr;
    }
    path.correct_case(link);
    c_string text = to_utf8(path.units().data(), static_cast<int>(path.units().size()));
    if (!text) {
        return nullptr;
    }
    if (path.form() == link_path::kind::relative) {
        std::replace(text.get(), text.get() + std::strlen(text.get()), '\\', '/');
    } else if (path.form() == link_path::kind::of_volume) {
        try {
            return copy_for_caller(path_text(text.get(), link, form).c_str());
        } catch (const std::bad_alloc&) {
            return nullptr;
        }
    }
    // What is elsewhere keeps its backslashes: no host takes it for a path of its own.
    return text;
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
           data->data_size <= interix_link_bytes_max &&
           ntfs_attr_pread(data, 0, sizeof head, head) == sizeof head &&
           std::memcmp(head, interix_marker, sizeof head) == 0;
}

bool is_reparse_link(const reparse_point& point) noexcept {
    return !wsl_target(point).empty() || link_path(point).form() != link_path::kind::none;
}

bool is_link(ntfs_inode* inode) noexcept {
    reparse_point point;
    (void)point.read(inode); // a damaged one is no link
    return point.exists() ? is_reparse_link(point) : is_interix_link(inode);
}

c_string link_target(ntfs_inode* inode, const reparse_point& point, target_form form) noexcept {
    if (!point.exists()) {
        return interix_target(inode);
    }
    if (const std::string_view target = wsl_target(point); !target.empty()) {
        c_string copy(static_cast<char*>(std::malloc(target.size() + 1)));
        if (copy) {
            *std::ranges::copy(target, copy.get()).out = '\0';
        }
        return copy;
    }
    return windows_target(inode, point, form);
}

} // namespace ntb

using namespace ntb;

namespace {

int32_t read_link(ntb_vol* vol, uint64_t ino, target_form form, char** target) noexcept {
    inode_guard inode;
    if (const int32_t error = inode.open(vol->volume, ino); error != 0) {
        return error;
    }
    reparse_point point;
    if (const int32_t error = point.read(inode.get()); error != 0) {
        return error == EIO ? EINVAL : error; // damaged: no link, as its attributes say
    }
    c_string text = link_target(inode.get(), point, form);
    if (!text) {
        return EINVAL;
    }
    *target = text.release();
    return 0;
}

} // namespace

int32_t ntb_readlink(ntb_vol* vol, uint64_t ino, char** target) {
    return read_link(vol, ino, target_form::of_volume, target);
}

int32_t ntb_readlink_in_mount(ntb_vol* vol, uint64_t ino, char** target) {
    return read_link(vol, ino, target_form::in_mount, target);
}
