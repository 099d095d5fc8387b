#include "platform/disk_file.hpp"

#include <cerrno>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#if defined(__linux__)
#include <linux/fs.h>
#elif defined(__APPLE__)
#include <sys/disk.h>
#endif

namespace tavelin {

namespace {

int deviceSize(int fd, std::uint64_t& bytes) noexcept {
#if defined(__linux__)
    // The older BLKGETSIZE counts sectors in a long, which is too small for large disks on a
    // 32-bit host.
    return ioctl(fd, BLKGETSIZE64, &bytes) == 0 ? 0 : errno;
#elif defined(__APPLE__)
    std::uint32_t blockSize = 0;
    std::uint64_t blockCount = 0;
    if (ioctl(fd, DKIOCGETBLOCKSIZE, &blockSize) != 0 ||
        ioctl(fd, DKIOCGETBLOCKCOUNT, &blockCount) != 0) {
        return errno;
    }
    // The device's driver reports both factors, so their product is checked.
    return __builtin_mul_overflow(blockCount, blockSize, &bytes) ? EOVERFLOW : 0;
#else
    // Moves the file offset. The callers read and write at explicit offsets only.
    const off_t end = lseek(fd, 0, SEEK_END);
    if (end < 0) {
        return errno;
    }
    bytes = static_cast<std::uint64_t>(end);
    return 0;
#endif
}

} // namespace

int diskFileSize(int fd, std::uint64_t& bytes) noexcept {
    struct stat status {};
    if (fstat(fd, &status) != 0) {
        return errno;
    }
    // The size of a device is not in its node: fstat() answers 0 for it.
    if (S_ISBLK(status.st_mode)) {
        return deviceSize(fd, bytes);
    }
    bytes = static_cast<std::uint64_t>(status.st_size);
    return 0;
}

void bypassHostCache(int fd) noexcept {
    // Advice to the host changes no result, so both forms drop its errors.
#if defined(__APPLE__)
    static_cast<void>(fcntl(fd, F_NOCACHE, 1));
#else
    static_cast<void>(posix_fadvise(fd, 0, 0, POSIX_FADV_RANDOM));
#endif
}

void forgetHostCache(int fd, std::uint64_t offset, std::uint64_t length) noexcept {
#if defined(__APPLE__)
    // bypassHostCache() has kept the range out of the cache from the start.
    static_cast<void>(fd);
    static_cast<void>(offset);
    static_cast<void>(length);
#else
    // Linux drops whole pages only, and only clean ones.
    static_cast<void>(posix_fadvise(fd, static_cast<off_t>(offset), static_cast<off_t>(length),
                                    POSIX_FADV_DONTNEED));
#endif
}

int discardRange(int fd, std::uint64_t offset, std::uint64_t length) noexcept {
#if defined(__linux__)
    struct stat status {};
    if (fstat(fd, &status) != 0) {
        return errno;
    }
    std::uint64_t range[] = {offset, length};
    const int result = S_ISBLK(status.st_mode)
                           ? ioctl(fd, BLKDISCARD, range)
                           : fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
                                       static_cast<off_t>(offset), static_cast<off_t>(length));
    return result == 0 ? 0 : errno;
#else
    static_cast<void>(fd);
    static_cast<void>(offset);
    static_cast<void>(length);
    return EOPNOTSUPP;
#endif
}

} // namespace tavelin
