#include "NTFSBridge/reparse.hpp"

#include "NTFSBridge/links.hpp"
#include "NTFSBridge/system_compression.hpp"
#include "NTFSBridge/transfer.hpp"
#include "NTFSBridge/wsl_metadata.hpp"

#include <new>

namespace ntb {
namespace {

constexpr size_t header_size = 8;            // tag, length of the data, reserved
constexpr size_t value_size_max = 16384 + 8; // Windows takes no larger ones

uint64_t device_number(uint64_t major, uint64_t minor) noexcept {
    return major << 32 | (minor & UINT32_MAX);
}

// Interix marks special files by the system attribute. FIFOs and sockets have 0 and 1 byte; system
// files of Windows that are empty are hidden, too. Devices begin with a marker, then have two
// numbers.
uint32_t interix_type_of(ntfs_inode* inode, uint64_t* device) noexcept {
    const attribute_guard data = open_unnamed_data(inode);
    if (!data) {
        return NTB_TYPE_FILE;
    }
    if (data->data_size <= 1) {
        if ((file_flags(inode) & FILE_ATTR_HIDDEN) != 0) {
            return NTB_TYPE_FILE;
        }
        return data->data_size == 0 ? NTB_TYPE_FIFO : NTB_TYPE_SOCKET;
    }
    if (is_interix_link(inode, data.get())) {
        return NTB_TYPE_SYMLINK;
    }
    struct {
        char marker[8];
        le64 major;
        le64 minor;
    } content = {};
    uint64_t done = 0;
    if (data->data_size != sizeof content ||
        read_stream(data.get(), 0, &content, sizeof content, &done) != 0 ||
        done != sizeof content) {
        return NTB_TYPE_FILE;
    }
    const bool is_character = std::memcmp(content.marker, "IntxCHR", 8) == 0;
    if (!is_character && std::memcmp(content.marker, "IntxBLK", 8) != 0) {
        return NTB_TYPE_FILE;
    }
    *device = device_number(le64_to_cpu(content.major), le64_to_cpu(content.minor));
    return is_character ? NTB_TYPE_CHARACTER_DEVICE : NTB_TYPE_BLOCK_DEVICE;
}

} // namespace

int32_t reparse_point::read(ntfs_inode* inode) noexcept {
    *this = {};
    if (!is_reparse_point(inode)) {
        return 0;
    }
    errno = 0;
    const attribute_guard value(ntfs_attr_open(inode, AT_REPARSE_POINT, AT_UNNAMED, 0));
    if (!value) {
        return errno == ENOENT ? 0 : err_or(EIO);
    }
    exists_ = true;
    if (value->data_size < static_cast<s64>(header_size) ||
        value->data_size > static_cast<s64>(value_size_max)) {
        return EIO;
    }
    const auto size = static_cast<size_t>(value->data_size);
    bytes_.reset(new (std::nothrow) uint8_t[size]);
    if (!bytes_) {
        return ENOMEM;
    }
    uint64_t done = 0;
    if (const int32_t error = read_stream(value.get(), 0, bytes_.get(), size, &done);
        error != 0 || done != size) {
        return first_error(error, EIO);
    }
    le32 tag = {};
    le16 length = {};
    std::memcpy(&tag, bytes_.get(), sizeof tag);
    std::memcpy(&length, bytes_.get() + sizeof tag, sizeof length);
    tag_ = le32_to_cpu(tag);
    if (le16_to_cpu(length) > size - header_size) {
        return EIO;
    }
    data_ = {bytes_.get() + header_size, size - header_size};
    return 0;
}

uint32_t data_state_of(ntfs_inode* inode, const reparse_point& point) noexcept {
    if ((file_flags(inode) & FILE_ATTR_ENCRYPTED) != 0) {
        return NTB_DATA_ENCRYPTED;
    }
    if (!point.exists()) {
        return NTB_DATA_HERE;
    }
    return system_compression_format(point) ? NTB_DATA_SYSTEM_COMPRESSED : NTB_DATA_ELSEWHERE;
}

uint32_t type_of(ntfs_inode* inode, const reparse_point& point, uint64_t* device) noexcept {
    *device = 0;
    if (point.exists() && is_reparse_link(point)) {
        return NTB_TYPE_SYMLINK;
    }
    if (is_directory(inode)) {
        return NTB_TYPE_DIRECTORY;
    }
    switch (point.tag()) {
    case NTB_TAG_AF_UNIX:
        return NTB_TYPE_SOCKET;
    case NTB_TAG_LX_FIFO:
        return NTB_TYPE_FIFO;
    case NTB_TAG_LX_CHR:
        *device = read_wsl_metadata(inode).device;
        return NTB_TYPE_CHARACTER_DEVICE;
    case NTB_TAG_LX_BLK:
        *device = read_wsl_metadata(inode).device;
        return NTB_TYPE_BLOCK_DEVICE;
    default:
        break;
    }
    const bool may_be_interix = !point.exists() && (file_flags(inode) & FILE_ATTR_SYSTEM) != 0;
    return may_be_interix ? interix_type_of(inode, device) : uint32_t{NTB_TYPE_FILE};
}

} // namespace ntb
