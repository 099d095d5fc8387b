#include "NTFSBridge/wsl_metadata.hpp"

#include "NTFSBridge/operation.hpp"
#include "NTFSBridge/transfer.hpp"

#include <new>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace ntb {
namespace {

using namespace std::string_view_literals;

constexpr size_t entry_header_size = 8;
constexpr size_t list_size_max = UINT16_MAX; // what $EA_INFORMATION can say
constexpr uint32_t permission_bits = 07777;

struct entry {
    std::string_view name;
    std::span<const uint8_t> value;
    size_t distance = 0; // to the next one
};

using byte_list = std::vector<uint8_t>;

uint64_t number_at(std::span<const uint8_t> bytes, size_t offset, size_t size) noexcept {
    uint64_t number = 0;
    for (size_t i = 0; i < size; ++i) {
        number |= uint64_t{bytes[offset + i]} << (8 * i);
    }
    return number;
}

void put_number(byte_list& bytes, uint64_t number, size_t size) {
    for (size_t i = 0; i < size; ++i) {
        bytes.push_back(static_cast<uint8_t>(number >> (8 * i)));
    }
}

// The entry that a list begins with; absent when it is damaged.
std::optional<entry> first_entry(std::span<const uint8_t> list) noexcept {
    if (list.size() < entry_header_size) {
        return std::nullopt;
    }
    const auto distance = static_cast<size_t>(number_at(list, 0, 4));
    const size_t name_length = list[5];
    const auto value_length = static_cast<size_t>(number_at(list, 6, 2));
    const size_t value_offset = entry_header_size + name_length + 1;
    if (distance > list.size() || distance % 4 != 0 || value_offset + value_length > distance) {
        return std::nullopt;
    }
    return entry{{reinterpret_cast<const char*>(list.data()) + entry_header_size, name_length},
                 list.subspan(value_offset, value_length),
                 distance};
}

// Empty for an inode without entries.
int32_t read_list(ntfs_inode* inode, byte_list& list) {
    errno = 0;
    const attribute_guard attribute(ntfs_attr_open(inode, AT_EA, AT_UNNAMED, 0));
    if (!attribute) {
        return errno == ENOENT ? 0 : err_or(EIO);
    }
    if (attribute->data_size < 0 || attribute->data_size > static_cast<s64>(list_size_max)) {
        return EIO;
    }
    list.resize(static_cast<size_t>(attribute->data_size));
    uint64_t done = 0;
    const int32_t error = read_stream(attribute.get(), 0, list.data(), list.size(), &done);
    return first_error(error, done == list.size() ? 0 : EIO);
}

void append_entry(byte_list& list, std::string_view name, uint32_t value) {
    const size_t start = list.size();
    const size_t size = entry_header_size + name.size() + 1 + sizeof value;
    const size_t distance = (size + 3) / 4 * 4;
    put_number(list, distance, 4);
    put_number(list, 0, 1); // no flags
    put_number(list, name.size(), 1);
    put_number(list, sizeof value, 2);
    list.insert(list.end(), name.begin(), name.end());
    list.push_back(0);
    put_number(list, value, sizeof value);
    list.resize(start + distance);
}

struct field {
    uint32_t bit;
    std::string_view name;
    uint32_t ntb_owner::*value;
};

constexpr field fields[] = {
    {NTB_OWNER_USER, "$LXUID"sv, &ntb_owner::user},
    {NTB_OWNER_GROUP, "$LXGID"sv, &ntb_owner::group},
    {NTB_OWNER_MODE, "$LXMOD"sv, &ntb_owner::mode},
};

void take_entry(const entry& found, wsl_metadata& metadata) noexcept {
    for (const field& each : fields) {
        if (found.name == each.name && found.value.size() == sizeof(uint32_t)) {
            metadata.owner.*each.value =
                static_cast<uint32_t>(number_at(found.value, 0, sizeof(uint32_t)));
            metadata.owner.given |= each.bit;
        }
    }
    if (found.name == "$LXDEV"sv && found.value.size() == 8) {
        metadata.device = number_at(found.value, 0, 4) << 32 | number_at(found.value, 4, 4);
    }
}

// Copies the entries that a new owner leaves as they are. EIO when the list is damaged: what cannot
// be read whole must not be written back.
int32_t keep_others(std::span<const uint8_t> list, uint32_t given, byte_list& out) {
    while (!list.empty()) {
        const std::optional<entry> next = first_entry(list);
        if (!next) {
            return EIO;
        }
        const bool is_replaced = std::ranges::any_of(fields, [&](const field& each) {
            return (given & each.bit) != 0 && each.name == next->name;
        });
        if (!is_replaced) {
            out.insert(out.end(), list.begin(),
                       list.begin() + static_cast<std::ptrdiff_t>(next->distance));
        }
        list = list.subspan(next->distance);
    }
    return 0;
}

// The file type bits of st_mode as Linux has them, whatever the host.
uint32_t type_bits(uint32_t type) noexcept {
    switch (type) {
    case NTB_TYPE_DIRECTORY:
        return 0040000;
    case NTB_TYPE_SYMLINK:
        return 0120000;
    case NTB_TYPE_FIFO:
        return 0010000;
    case NTB_TYPE_CHARACTER_DEVICE:
        return 0020000;
    case NTB_TYPE_BLOCK_DEVICE:
        return 0060000;
    case NTB_TYPE_SOCKET:
        return 0140000;
    default:
        return 0100000;
    }
}

} // namespace

wsl_metadata read_wsl_metadata(ntfs_inode* inode) noexcept {
    wsl_metadata metadata;
    try {
        byte_list list;
        if (read_list(inode, list) == 0) {
            std::span<const uint8_t> rest = list;
            while (const std::optional<entry> next = first_entry(rest)) {
                take_entry(*next, metadata);
                rest = rest.subspan(next->distance);
            }
        }
    } catch (const std::bad_alloc&) {
        return {};
    }
    metadata.owner.mode &= permission_bits;
    return metadata;
}

int32_t write_owner(const ntb_vol* vol, ntfs_inode* inode, const ntb_owner& owner,
                    uint32_t type) noexcept {
    try {
        byte_list old;
        byte_list list;
        if (const int32_t error = read_list(inode, old); error != 0) {
            return error;
        }
        if (const int32_t error = keep_others(old, owner.given, list); error != 0) {
            return error;
        }
        ntb_owner stored = owner;
        stored.mode = (owner.mode & permission_bits) | type_bits(type);
        for (const field& each : fields) {
            if ((owner.given & each.bit) != 0) {
                append_entry(list, each.name, stored.*each.value);
            }
        }
        if (list.size() > list_size_max) {
            return E2BIG;
        }
        if (const int32_t error = list.size() > old.size() ? admit(vol, 0) : 0; error != 0) {
            return error;
        }
        errno = 0;
        return ntfs_set_ntfs_ea(inode, reinterpret_cast<const char*>(list.data()), list.size(),
                                0) == 0
                   ? 0
                   : err_or(EIO);
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

} // namespace ntb
