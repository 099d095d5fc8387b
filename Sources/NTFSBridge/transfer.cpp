#include "NTFSBridge/transfer.hpp"

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

int32_t write_stream(ntfs_attr* stream, uint64_t offset, const void* from, uint64_t length,
                     uint64_t* done) noexcept {
    *done = 0;
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
