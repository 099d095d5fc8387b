// Named data streams, which the host sees as extended attributes.
#include "NTFSBridge/links.hpp"
#include "NTFSBridge/names.hpp"
#include "NTFSBridge/operation.hpp"
#include "NTFSBridge/system_compression.hpp"
#include "NTFSBridge/transfer.hpp"

using namespace ntb;

namespace {

struct named_inode {
    utf16_text name;
    inode_guard inode;

    [[nodiscard]] int32_t open(const ntb_vol* vol, uint64_t ino, const char* stream) noexcept {
        if (const int32_t error = stream_name_of(stream, name); error != 0) {
            return error;
        }
        return inode.open(vol->volume, ino);
    }

    // Opens the stream. Without one of that name: 0 and an empty guard.
    [[nodiscard]] int32_t open_stream(attribute_guard& stream) const noexcept {
        errno = 0;
        stream.reset(
            ntfs_attr_open(inode.get(), AT_DATA, name.units(), static_cast<u32>(name.length())));
        return stream || errno == ENOENT ? 0 : err_or(EIO);
    }

    // Both, for a stream that must be there.
    [[nodiscard]] int32_t open_existing(const ntb_vol* vol, uint64_t ino, const char* text,
                                        attribute_guard& stream) noexcept {
        if (const int32_t error = open(vol, ino, text); error != 0) {
            return error;
        }
        if (is_link(inode.get())) {
            return no_such_attribute;
        }
        const int32_t error = open_stream(stream);
        return error == 0 && !stream ? no_such_attribute : error;
    }
};

// Continuations of a stream whose extents fill several records carry its name as well.
bool starts_a_named_stream(const ATTR_RECORD* attribute) noexcept {
    return attribute->name_length != 0 &&
           (attribute->non_resident == 0 || attribute->lowest_vcn == 0);
}

// Leaves the stream open and empty.
int32_t make_empty_stream(const named_inode& target, attribute_guard& stream) noexcept {
    errno = 0;
    if (stream) {
        return ntfs_attr_truncate(stream.get(), 0) == 0 ? 0 : err_or(EIO);
    }
    if (ntfs_attr_add(target.inode.get(), AT_DATA, target.name.units(), target.name.name_length(),
                      nullptr, 0) != 0) {
        return err_or(EIO);
    }
    const int32_t error = target.open_stream(stream);
    return error == 0 && !stream ? EIO : error;
}

int32_t fill_stream(ntfs_attr* stream, const void* value, uint64_t size) noexcept {
    uint64_t done = 0;
    if (const int32_t error = write_stream(stream, 0, value, size, &done); error != 0) {
        return error;
    }
    errno = 0;
    return ntfs_attr_pclose(stream) == 0 ? 0 : err_or(EIO);
}

// Whether a stream is what a system-compressed file has its bytes in.
bool is_compressed_stream(ntfs_inode* inode, const char* name) noexcept {
    if (!is_reparse_point(inode) || std::strcmp(name, compressed_stream_name) != 0) {
        return false;
    }
    reparse_point point;
    return point.read(inode) == 0 && system_compression_format(point);
}

int32_t set_stream(ntb_vol* vol, const named_inode& target, const void* value, uint64_t size,
                   int32_t flags) noexcept {
    attribute_guard stream;
    if (const int32_t error = target.open_stream(stream); error != 0) {
        return error;
    }
    const bool is_new = !stream;
    if (!is_new && flags == NTB_XATTR_CREATE) {
        return EEXIST;
    }
    if (is_new && flags == NTB_XATTR_REPLACE) {
        return no_such_attribute;
    }
    if (const int32_t error = admit(vol, size); error != 0) {
        return error;
    }
    if (const int32_t error = make_empty_stream(target, stream); error != 0) {
        return error;
    }
    const int32_t error = fill_stream(stream.get(), value, size);
    if (error != 0 && is_new) {
        stream.reset();
        // Best effort: a stream that could not be made should not be there half.
        (void)ntfs_attr_remove(target.inode.get(), AT_DATA, target.name.units(),
                               static_cast<u32>(target.name.length()));
    }
    return error;
}

} // namespace

int32_t ntb_listxattr(ntb_vol* vol, uint64_t ino, ntb_name_callback callback, void* context) {
    inode_guard inode;
    if (const int32_t error = inode.open(vol->volume, ino); error != 0) {
        return error;
    }
    if (is_link(inode.get())) {
        return 0;
    }
    const bool has_compressed_stream = is_compressed_stream(inode.get(), compressed_stream_name);
    attribute_search search(inode.get());
    while (search.find(AT_DATA, nullptr)) {
        const ATTR_RECORD* const found = search.found();
        const void* const units =
            reinterpret_cast<const uint8_t*>(found) + le16_to_cpu(found->name_offset);
        char name[name_buffer_size];
        if (starts_a_named_stream(found) &&
            to_utf8(static_cast<const ntfschar*>(units), found->name_length, name) &&
            !(has_compressed_stream && std::strcmp(name, compressed_stream_name) == 0) &&
            callback(context, name) != 0) {
            return 0;
        }
    }
    return errno == ENOENT ? 0 : err_or(EIO);
}

int32_t ntb_xattr_size(ntb_vol* vol, uint64_t ino, const char* name, uint64_t* size) {
    *size = 0;
    named_inode source;
    attribute_guard stream;
    if (const int32_t error = source.open_existing(vol, ino, name, stream); error != 0) {
        return error;
    }
    *size = static_cast<uint64_t>(stream->data_size);
    return 0;
}

int32_t ntb_getxattr(ntb_vol* vol, uint64_t ino, const char* name, void** buffer, uint64_t* size) {
    *buffer = nullptr;
    *size = 0;
    named_inode source;
    attribute_guard stream;
    if (const int32_t error = source.open_existing(vol, ino, name, stream); error != 0) {
        return error;
    }
    const auto length = static_cast<uint64_t>(stream->data_size);
    c_bytes value(static_cast<uint8_t*>(std::malloc(std::max<uint64_t>(length, 1))));
    if (!value) {
        return ENOMEM;
    }
    uint64_t done = 0;
    const int32_t error = read_stream(stream.get(), 0, value.get(), length, &done);
    if (error != 0 || done != length) {
        return first_error(error, EIO);
    }
    *buffer = value.release();
    *size = length;
    return 0;
}

static int32_t set_attribute(ntb_vol* vol, uint64_t ino, const char* name, const void* value,
                             uint64_t size, int32_t flags) {
    if (is_read_only(vol)) {
        return EROFS;
    }
    named_inode target;
    if (const int32_t error = target.open(vol, ino, name); error != 0) {
        return error;
    }
    if (is_link(target.inode.get()) || is_compressed_stream(target.inode.get(), name)) {
        return EPERM;
    }
    if (const int32_t error = set_stream(vol, target, value, size, flags); error != 0) {
        return error;
    }
    set_flag(target.inode.get(), FILE_ATTR_ARCHIVE, true);
    NInoFileNameSetDirty(target.inode.get());
    ntfs_inode_update_times(target.inode.get(), NTFS_UPDATE_CTIME);
    return target.inode.close();
}

int32_t ntb_setxattr(ntb_vol* vol, uint64_t ino, const char* name, const void* value, uint64_t size,
                     int32_t flags) {
    return atomically(vol, [&] { return set_attribute(vol, ino, name, value, size, flags); });
}

static int32_t remove_attribute(ntb_vol* vol, uint64_t ino, const char* name) {
    if (is_read_only(vol)) {
        return EROFS;
    }
    named_inode target;
    if (const int32_t error = target.open(vol, ino, name); error != 0) {
        return error;
    }
    ntfs_inode* const inode = target.inode.get();
    const auto length = static_cast<u32>(target.name.length());
    if (is_compressed_stream(inode, name)) {
        return EOPNOTSUPP;
    }
    if (is_link(inode) || !ntfs_attr_exist(inode, AT_DATA, target.name.units(), length)) {
        return no_such_attribute;
    }
    errno = 0;
    if (ntfs_attr_remove(inode, AT_DATA, target.name.units(), length) != 0) {
        return err_or(EIO);
    }
    ntfs_inode_update_times(inode, NTFS_UPDATE_CTIME);
    return target.inode.close();
}

int32_t ntb_removexattr(ntb_vol* vol, uint64_t ino, const char* name) {
    return atomically(vol, [&] { return remove_attribute(vol, ino, name); });
}
