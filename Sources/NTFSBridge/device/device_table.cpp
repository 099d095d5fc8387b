#include "NTFSBridge/device/device_table.hpp"

#include "NTFSBridge/device/block_io.hpp"

#include <fcntl.h>
#include <unistd.h>

namespace ntb {
namespace {

// macOS's disk ioctls DKIOCGETBLOCKSIZE and DKIOCGETBLOCKCOUNT, by which the library asks for a
// device's size there. They are answered under their numbers on every host.
constexpr unsigned long dkioc_get_block_size = 0x40046418;
constexpr unsigned long dkioc_get_block_count = 0x40086419;

ntb_devctx& context_of(const ntfs_device* device) noexcept {
    return *static_cast<ntb_devctx*>(device->d_private);
}

int fail(int32_t error) noexcept {
    errno = error;
    return -1;
}

int d_open(ntfs_device* device, int flags) noexcept {
    if (NDevOpen(device)) {
        return fail(EBUSY);
    }
    ntb_devctx& context = context_of(device);
    // By this flag d_pwrite refuses to write, and d_sync has nothing to sync.
    if ((flags & O_ACCMODE) != O_RDWR || context.read_only != 0) {
        NDevSetReadOnly(device);
    }
    NDevSetOpen(device);
    NDevSetBlock(device);
    context.position = 0;
    return 0;
}

int d_close(ntfs_device* device) noexcept {
    if (!NDevOpen(device)) {
        return fail(EBADF);
    }
    ntb_devctx& context = context_of(device);
    // A mount that failed after it had emptied a journal closes without a sync, so the dirty pages
    // go to the device here.
    const int32_t error = context.flush();
    if (NDevDirty(device) && context.io.sync != nullptr) {
        // Dropped: a caller who needs to know syncs before closing.
        (void)context.io.sync(context.io.context);
    }
    NDevClearOpen(device);
    return error == 0 ? 0 : fail(error);
}

s64 d_seek(ntfs_device* device, s64 offset, int whence) noexcept {
    ntb_devctx& context = context_of(device);
    // A negative distance wraps around, and so does the sum, back to the right position.
    const auto distance = static_cast<uint64_t>(offset);
    switch (whence) {
    case SEEK_SET:
        context.position = distance;
        break;
    case SEEK_CUR:
        context.position += distance;
        break;
    case SEEK_END:
        context.position = context.io.size + distance;
        break;
    default:
        return fail(EINVAL);
    }
    return static_cast<s64>(context.position);
}

s64 d_pread(ntfs_device* device, void* buffer, s64 count, s64 offset) noexcept {
    ntb_devctx& context = context_of(device);
    const auto start = static_cast<uint64_t>(offset);
    // 0 means the end of the device, as with pread(2). The library then answers how much it read
    // until then. An error here would look like a failing device.
    if (count < 1 || start >= context.io.size) {
        return 0;
    }
    const uint64_t length = std::min(static_cast<uint64_t>(count), context.io.size - start);
    const int32_t error = context.read(static_cast<uint8_t*>(buffer), length, start);
    return error == 0 ? static_cast<s64>(length) : fail(error);
}

s64 d_pwrite(ntfs_device* device, const void* buffer, s64 count, s64 offset) noexcept {
    // The last check before the device: no write of the library passes it on a read-only volume.
    if (NDevReadOnly(device)) {
        return fail(EROFS);
    }
    if (count < 1) {
        return 0;
    }
    // Even a write that fails may have changed some of its pages.
    NDevSetDirty(device);
    const int32_t error =
        context_of(device).write(static_cast<const uint8_t*>(buffer), static_cast<uint64_t>(count),
                                 static_cast<uint64_t>(offset));
    return error == 0 ? count : fail(error);
}

s64 d_read(ntfs_device* device, void* buffer, s64 count) noexcept {
    ntb_devctx& context = context_of(device);
    const s64 done = d_pread(device, buffer, count, static_cast<s64>(context.position));
    if (done > 0) {
        context.position += static_cast<uint64_t>(done);
    }
    return done;
}

s64 d_write(ntfs_device* device, const void* buffer, s64 count) noexcept {
    ntb_devctx& context = context_of(device);
    const s64 done = d_pwrite(device, buffer, count, static_cast<s64>(context.position));
    if (done > 0) {
        context.position += static_cast<uint64_t>(done);
    }
    return done;
}

int d_sync(ntfs_device* device) noexcept {
    ntb_devctx& context = context_of(device);
    // The cache first: a sync of the device covers what the device was given. After an error the
    // device stays marked dirty, and the next sync does both again.
    if (const int32_t error = context.flush(); error != 0) {
        return fail(error);
    }
    // Nothing was written since the last sync that succeeded, so the device need not be asked. A
    // sync may take tens of milliseconds.
    if (NDevDirty(device) && !NDevReadOnly(device)) {
        if (context.io.sync != nullptr) {
            if (const int32_t error = context.io.sync(context.io.context); error != 0) {
                return fail(error);
            }
        }
        NDevClearDirty(device);
    }
    return 0;
}

int d_stat(ntfs_device* device, struct stat* record) noexcept {
    const ntb_io& io = context_of(device).io;
    *record = {};
    record->st_mode = S_IFBLK;
    record->st_size = static_cast<off_t>(io.size);
    record->st_blksize = static_cast<decltype(record->st_blksize)>(io.block_size);
    if (io.block_size == 0) {
        record->st_blksize = 1;
    }
    return 0;
}

int d_ioctl(ntfs_device* device, unsigned long request, void* argument) noexcept {
    const ntb_io& io = context_of(device).io;
    const uint32_t block_size = std::max<uint32_t>(io.block_size, 512);
    const uint64_t block_count = io.size / block_size;
    switch (request) {
    case dkioc_get_block_size:
        std::memcpy(argument, &block_size, sizeof block_size);
        return 0;
    case dkioc_get_block_count:
        std::memcpy(argument, &block_count, sizeof block_count);
        return 0;
    default:
        // The library takes this for a device that does not know the request, and goes on without
        // the answer.
        return fail(EOPNOTSUPP);
    }
}

// ---- For a volume whose operation was taken back: it may read, and writes nothing ---------------

int discard_open(ntfs_device* /*device*/, int /*flags*/) noexcept {
    return fail(EBUSY);
}

// Flushes nothing: the context, with its dirty pages, is that of the new volume by now.
int discard_close(ntfs_device* device) noexcept {
    NDevClearOpen(device);
    return 0;
}

// Answers success. After an error the library would keep the inode open and its memory allocated.
s64 discard_pwrite(ntfs_device* /*device*/, const void* /*buffer*/, s64 count,
                   s64 /*offset*/) noexcept {
    return count;
}

s64 discard_write(ntfs_device* /*device*/, const void* /*buffer*/, s64 count) noexcept {
    return count;
}

int discard_sync(ntfs_device* /*device*/) noexcept {
    return 0;
}

} // namespace

ntfs_device_operations ntb_discarding_ops = {
    .open = discard_open,
    .close = discard_close,
    .seek = d_seek,
    .read = d_read,
    .write = discard_write,
    .pread = d_pread,
    .pwrite = discard_pwrite,
    .sync = discard_sync,
    .stat = d_stat,
    .ioctl = d_ioctl,
};

ntfs_device_operations ntb_dev_ops = {
    .open = d_open,
    .close = d_close,
    .seek = d_seek,
    .read = d_read,
    .write = d_write,
    .pread = d_pread,
    .pwrite = d_pwrite,
    .sync = d_sync,
    .stat = d_stat,
    .ioctl = d_ioctl,
};

} // namespace ntb
