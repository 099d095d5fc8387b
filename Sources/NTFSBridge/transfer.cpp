#include "NTFSBridge/transfer.hpp"

#include "NTFSBridge/device/block_io.hpp"

namespace ntb {

int32_t read_stream(ntfs_attr* stream, uint64_t offset, void* to, uint64_t length,
                    uint64_t* done) noexcept {
    *done = 0;
    while (*done < length) {
        errno = 0;
        const s64 count =
            ntfs_attr_pread(stream, static_cast<s64>(offset + *done),
                            static_cast<s64>(length - *done), static_cast<uint8_t*>(to) + *done);
        if (count < 0) {
            return err_or(EIO);
        }
        if (count == 0) {
            break;
        }
        *done += static_cast<uint64_t>(count);
    }
    return 0;
}

// Whether the stream's bytes are in the inode's record once it is `size` bytes long, which it then
// is. A stream that is compressed or encrypted is left to the library.
static int32_t grow_resident(ntfs_attr* stream, uint64_t size, bool* resident) noexcept {
    *resident = !NAttrNonResident(stream) && stream->data_flags == 0 &&
                size <= stream->ni->vol->mft_record_size;
    if (*resident && size > static_cast<uint64_t>(stream->data_size)) {
        errno = 0;
        if (ntfs_attr_truncate(stream, static_cast<s64>(size)) != 0) {
            return err_or(EIO);
        }
        *resident = !NAttrNonResident(stream);
    }
    return 0;
}

// Changes a value inside its record, which the closing of the inode writes. The library would write
// the record here as well, and once more when it closes the inode with its new times.
static int32_t write_resident(ntfs_attr* stream, uint64_t offset, const void* from,
                              uint64_t length) noexcept {
    attribute_search search(stream->ni);
    if (!search.find(stream->type, stream->name, stream->name_len)) {
        return err_or(EIO);
    }
    ATTR_RECORD* const record = search.found();
    const uint64_t start = le16_to_cpu(record->value_offset);
    const uint64_t size = le32_to_cpu(record->value_length);
    // What a damaged record says of itself is not believed.
    if (record->non_resident != 0 || start + size > le32_to_cpu(record->length) ||
        !is_within(offset, length, size)) {
        return EIO;
    }
    std::memcpy(reinterpret_cast<uint8_t*>(record) + start + offset, from, length);
    ntfs_inode_mark_dirty(search.holder());
    return 0;
}

int32_t write_stream(ntfs_attr* stream, uint64_t offset, const void* from, uint64_t length,
                     uint64_t* done) noexcept {
    *done = 0;
    if (length == 0) {
        return 0;
    }
    bool is_resident = false;
    if (const int32_t error = grow_resident(stream, offset + length, &is_resident); error != 0) {
        return error;
    }
    if (is_resident) {
        const int32_t error = write_resident(stream, offset, from, length);
        *done = error == 0 ? length : 0;
        return error;
    }
    const uint64_t cluster = stream->ni->vol->cluster_size;
    uint64_t piece = length;
    while (*done < length) {
        errno = 0;
        const uint64_t asked = std::min(piece, length - *done);
        const s64 count =
            ntfs_attr_pwrite(stream, static_cast<s64>(offset + *done), static_cast<s64>(asked),
                             static_cast<const uint8_t*>(from) + *done);
        if (count > 0) {
            *done += static_cast<uint64_t>(count);
            continue;
        }
        const int32_t error = err_or(EIO);
        // For one write the library's allocator takes one run of free clusters from each chunk of
        // the bitmap, so a large one can find no space on a volume that has it in small pieces.
        if (error != ENOSPC || asked <= cluster) {
            return error;
        }
        piece = std::max(asked / 2, cluster);
    }
    return 0;
}

} // namespace ntb
