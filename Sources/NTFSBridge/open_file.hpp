// A file that is open for a change of its unnamed data stream, or for a look at it.
#pragma once

#include "NTFSBridge/guards.hpp"
#include "NTFSBridge/reparse.hpp"
#include "NTFSBridge/volume.hpp"

namespace ntb {

// What the library can count: its offsets are signed.
constexpr uint64_t offset_max = INT64_MAX;

struct open_file {
    inode_guard inode;
    attribute_guard data; // after the inode, to be closed before it

    [[nodiscard]] int32_t open(const ntb_vol* vol, uint64_t ino) noexcept {
        const int32_t error = open_inode(vol, ino);
        return error != 0 ? error : open_data();
    }

    [[nodiscard]] int32_t open_inode(const ntb_vol* vol, uint64_t ino) noexcept {
        if (const int32_t error = inode.open(vol->volume, ino); error != 0) {
            return error;
        }
        return is_directory(inode.get()) ? EISDIR : 0;
    }

    // EOPNOTSUPP when the stream does not have the file's bytes.
    [[nodiscard]] int32_t open_data() noexcept {
        if (is_reparse_point(inode.get())) {
            reparse_point point;
            const int32_t error = point.read(inode.get());
            if (point.exists()) {
                return error == 0 || error == EIO ? EOPNOTSUPP : error;
            }
        }
        errno = 0;
        data = open_unnamed_data(inode.get());
        if (!data) {
            return err_or(EIO);
        }
        return (data->data_flags & ATTR_IS_ENCRYPTED) != 0 ? EACCES : 0;
    }

    uint64_t size() const noexcept { return static_cast<uint64_t>(data->data_size); }

    // Closes both. A failing close is reported unless there already was an error.
    [[nodiscard]] int32_t close(int32_t error) noexcept {
        data.reset();
        return first_error(error, inode.close());
    }
};

// Whether a write at `offset` would have the library first write more than NTB_CACHED_BYTES_MAX
// zeroes, in small pieces, into clusters that the stream has and never used.
[[nodiscard]] bool is_far_from_written(ntfs_attr* data, uint64_t offset) noexcept;

// Gives back the clusters that an open file has both behind its end and behind the first `keep`
// bytes; errno or EIO.
[[nodiscard]] int32_t trim_clusters(open_file& file, uint64_t keep) noexcept;

} // namespace ntb
