#include "NTFSBridge/link_path.hpp"

#include "NTFSBridge/names.hpp"

#include <new>
#include <string_view>

namespace ntb {
namespace {

// Of a symbolic link's data, which has 4 bytes of flags after it, and of a junction's: where its
// names are, in bytes from the end of the header. The substitute name is the one that counts.
struct link_header {
    le16 name_offset;
    le16 name_length;
    le16 print_name_offset;
    le16 print_name_length;
};
constexpr size_t flags_size = 4;

constexpr uint16_t separator = '\\';

uint16_t at(std::span<const ntfschar> units, size_t index) noexcept {
    return index < units.size() ? le16_to_cpu(units[index]) : uint16_t{0};
}

uint16_t lower(uint16_t unit) noexcept {
    return unit >= 'A' && unit <= 'Z' ? static_cast<uint16_t>(unit + 'a' - 'A') : unit;
}

// Whether the units begin with a text in lower case.
bool begins_with(std::span<const ntfschar> units, std::string_view text) noexcept {
    for (size_t i = 0; i < text.size(); ++i) {
        if (lower(at(units, i)) != static_cast<uint16_t>(text[i])) {
            return false;
        }
    }
    return true;
}

bool is_dots(std::span<const ntfschar> name, size_t count) noexcept {
    return name.size() == count &&
           std::ranges::all_of(name, [](ntfschar unit) { return le16_to_cpu(unit) == '.'; });
}

} // namespace

link_path::link_path(const reparse_point& point) noexcept {
    const size_t header_size =
        sizeof(link_header) + (point.tag() == NTB_TAG_SYMLINK ? flags_size : 0);
    link_header header = {};
    if ((point.tag() != NTB_TAG_SYMLINK && point.tag() != NTB_TAG_MOUNT_POINT) ||
        point.data().size() < header_size) {
        return;
    }
    std::memcpy(&header, point.data().data(), sizeof header);
    const size_t start = header_size + le16_to_cpu(header.name_offset);
    const size_t count = le16_to_cpu(header.name_length) / sizeof(ntfschar);
    if (count == 0 || start + count * sizeof(ntfschar) > point.data().size()) {
        return;
    }
    owned_.reset(new (std::nothrow) ntfschar[count]);
    if (!owned_) {
        return;
    }
    std::memcpy(owned_.get(), point.data().data() + start, count * sizeof(ntfschar));
    units_ = {owned_.get(), count};
    understand();
}

void link_path::understand() noexcept {
    std::ranges::replace(units_, const_cpu_to_le16('/'), const_cpu_to_le16('\\'));
    std::span<ntfschar> rest = units_;
    const bool has_prefix =
        begins_with(rest, "\\??\\") || begins_with(rest, "\\\\?\\") || begins_with(rest, "\\\\.\\");
    if (has_prefix) {
        rest = rest.subspan(4);
    }
    const uint16_t first = lower(at(rest, 0));
    if (first >= 'a' && first <= 'z' && at(rest, 1) == ':') {
        units_ = rest.subspan(2);
        form_ = kind::of_volume;
    } else if (has_prefix) {
        const bool is_here = !begins_with(rest, "volume{") && !begins_with(rest, "unc\\") &&
                             !begins_with(rest, "globalroot\\");
        units_ = is_here ? rest : units_;
        form_ = is_here ? kind::of_volume : kind::elsewhere;
    } else if (first == separator) {
        form_ = at(rest, 1) == separator ? kind::elsewhere : kind::of_volume;
    } else {
        form_ = kind::relative;
    }
}

void link_path::correct_case(ntfs_inode* link) noexcept {
    inode_guard directory;
    if (form_ == kind::relative) {
        directory = inode_guard(ntfs_dir_parent_inode(link));
    } else if (form_ != kind::of_volume || directory.open(link->vol, FILE_root) != 0) {
        return;
    }
    std::span<ntfschar> rest = units_;
    while (directory && !rest.empty()) {
        const auto end = std::ranges::find(rest, const_cpu_to_le16('\\'));
        const std::span<ntfschar> name(rest.begin(), end);
        rest = rest.subspan(std::min(name.size() + 1, rest.size()));
        if (name.empty() || is_dots(name, 1)) {
            continue;
        }
        if (is_dots(name, 2)) {
            if (directory->mft_no != FILE_root) {
                directory = inode_guard(ntfs_dir_parent_inode(directory.get()));
            }
            continue;
        }
        u64 found = 0;
        if (!find_in_any_case(directory.get(), name, found) || MREF(found) == link->mft_no ||
            MREF(found) == directory->mft_no) {
            return;
        }
        inode_guard next;
        if (rest.empty() || next.open(link->vol, MREF(found)) != 0 || !is_directory(next.get()) ||
            is_reparse_point(next.get())) {
            return;
        }
        directory = std::move(next);
    }
}

} // namespace ntb
