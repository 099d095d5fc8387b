// Making links in the form of Windows: reparse points with a relative target.
#include "NTFSBridge/names.hpp"
#include "NTFSBridge/namespace.hpp"
#include "NTFSBridge/operation.hpp"
#include "NTFSBridge/wsl_metadata.hpp"

#include <new>
#include <string>
#include <string_view>
#include <vector>

using namespace ntb;

namespace {

constexpr size_t windows_target_max = 4096; // UTF-16 units: two copies must fit in a reparse point

// Whether Windows can follow a target as it is: a relative path of names that it could make.
bool suits_windows(std::string_view target) noexcept {
    return !target.empty() && target.front() != '/' && target.size() <= windows_target_max &&
           std::ranges::none_of(target, [](char c) {
               return static_cast<unsigned char>(c) < 0x20 ||
                      std::string_view("\\:*?\"<>|").find(c) != std::string_view::npos;
           });
}

// Windows tells links to directories from links to files when they are made. What is not there yet
// counts as a file.
bool leads_to_directory(ntb_vol* vol, uint64_t from, std::string_view target) {
    uint64_t current = from;
    while (!target.empty()) {
        const size_t end = std::min(target.find('/'), target.size());
        const std::string name(target.substr(0, end));
        target.remove_prefix(std::min(end + 1, target.size()));
        if (name.empty() || name == ".") {
            continue;
        }
        if (name == "..") {
            inode_guard inode;
            if (inode.open(vol->volume, current) != 0) {
                return false;
            }
            const inode_guard above(ntfs_dir_parent_inode(inode.get()));
            current = above ? above->mft_no : NTB_ROOT_INO;
        } else if (ntb_lookup(vol, current, name.c_str(), &current) != 0) {
            return false;
        }
    }
    inode_guard inode;
    return inode.open(vol->volume, current) == 0 && is_directory(inode.get());
}

void append_number(std::vector<uint8_t>& data, uint64_t value, size_t bytes) {
    for (size_t i = 0; i < bytes; ++i) {
        data.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
}

// The value of the reparse point. The target is both the name that counts and the one shown.
std::vector<uint8_t> relative_link_data(const utf16_text& target) {
    const size_t size = static_cast<size_t>(target.length()) * sizeof(ntfschar);
    constexpr size_t names_offset = 12;
    constexpr uint32_t is_relative = 1;
    std::vector<uint8_t> data;
    append_number(data, NTB_TAG_SYMLINK, 4);
    append_number(data, names_offset + 2 * size, 2);
    append_number(data, 0, 2); // reserved
    for (const size_t offset : {size_t{0}, size}) {
        append_number(data, offset, 2);
        append_number(data, size, 2);
    }
    append_number(data, is_relative, 4);
    for (int copy = 0; copy < 2; ++copy) {
        for (int i = 0; i < target.length(); ++i) {
            const uint16_t unit = le16_to_cpu(target.units()[i]);
            append_number(data, unit == '/' ? '\\' : unit, sizeof unit);
        }
    }
    return data;
}

int32_t make_reparse_point(const ntb_vol* vol, uint64_t ino, const utf16_text& target,
                           const ntb_owner* owner) {
    const std::vector<uint8_t> data = relative_link_data(target);
    inode_guard inode;
    if (const int32_t error = inode.open(vol->volume, ino); error != 0) {
        return error;
    }
    errno = 0;
    int32_t error =
        ntfs_set_ntfs_reparse_data(inode.get(), reinterpret_cast<const char*>(data.data()),
                                   data.size(), 0) == 0
            ? 0
            : err_or(EIO);
    if (error == 0 && owner != nullptr && owner->given != 0) {
        error = write_owner(vol, inode.get(), *owner, NTB_TYPE_SYMLINK);
    }
    return first_error(error, inode.close());
}

} // namespace

int32_t ntb_symlink_windows(ntb_vol* vol, uint64_t parent, const char* name, const char* target,
                            const ntb_owner* owner, uint64_t* ino) {
    utf16_text text;
    if (target == nullptr || !suits_windows(target) || text.assign(target) != 0) {
        return ntb_symlink(vol, parent, name, target, owner, ino);
    }
    return atomically(vol, [&]() -> int32_t {
        try {
            const bool is_for_directory = leads_to_directory(vol, parent, target);
            const ntb_new_item item = {
                is_for_directory ? NTB_TYPE_DIRECTORY : NTB_TYPE_FILE, 0, {}};
            uint64_t made = 0;
            int32_t error = create_entry(vol, parent, name, item, &made);
            error = error != 0 ? error : make_reparse_point(vol, made, text, owner);
            if (error == 0) {
                *ino = made;
            }
            return error;
        } catch (const std::bad_alloc&) {
            return ENOMEM;
        }
    });
}
