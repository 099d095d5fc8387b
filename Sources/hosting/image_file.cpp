#include "hosting/image_file.hpp"

#include "hosting/open_error.hpp"
#include "platform/error_numbers.hpp"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#if defined(__APPLE__)
#include <sys/disk.h>
#else
#include <linux/fs.h>
#endif

namespace tavelin {

namespace {

constexpr const char* kNoDevice = "neither a disk image nor a block device";

[[noreturn]] void cannotOpen(const std::string& path, int error) {
    const std::int32_t code = fromHost(error);
    switch (error) {
    case ENOENT:
    case ENOTDIR:
        throw OpenError(OpenError::Reason::notFound, code, path, "there is no such file or device");
    case EACCES:
    case EPERM:
        throw OpenError(OpenError::Reason::permission, code, path, "you may not open it");
    case EISDIR:
        throw OpenError(OpenError::Reason::notBlockDevice, code, path, kNoDevice);
    case EBUSY:
    case EAGAIN:
        throw OpenError(OpenError::Reason::inUse, code, path, "another program is using it");
    default:
        throw OpenError(OpenError::Reason::ioError, code, path, errorText(code));
    }
}

/// Of a device node; `fallback` where the system does not say.
std::uint64_t deviceValue(int descriptor, unsigned long request, std::uint64_t fallback) {
    std::uint32_t value = 0; // both systems answer 32 bits
    return ::ioctl(descriptor, request, &value) == 0 && value > 0 ? value : fallback;
}

#if defined(__APPLE__)
constexpr unsigned long kBlockSizeRequest = DKIOCGETBLOCKSIZE;
constexpr unsigned long kPhysicalBlockSizeRequest = DKIOCGETPHYSICALBLOCKSIZE;
#else
constexpr unsigned long kBlockSizeRequest = BLKSSZGET;
constexpr unsigned long kPhysicalBlockSizeRequest = BLKPBSZGET;
#endif

/// 0, or the errno of a lock that somebody else holds.
int lockDescriptor(int descriptor, bool exclusive) {
#if defined(F_OFD_SETLK)
    struct flock whole {};
    whole.l_type = exclusive ? F_WRLCK : F_RDLCK;
    whole.l_whence = SEEK_SET;
    const int result = ::fcntl(descriptor, F_OFD_SETLK, &whole);
#else
    const int result = ::flock(descriptor, (exclusive ? LOCK_EX : LOCK_SH) | LOCK_NB);
#endif
    // A file system without locks is no reason to refuse the image.
    return result != 0 && (errno == EAGAIN || errno == EACCES) ? EAGAIN : 0;
}

} // namespace

ImageFile::ImageFile(const std::filesystem::path& path, bool readOnly) {
    std::error_code unknown;
    // A device node that is mounted, or open exclusively elsewhere, refuses O_EXCL.
    const int exclusive = std::filesystem::is_block_file(path, unknown) ? O_EXCL : 0;
    if (!readOnly) {
        descriptor_ = ::open(path.c_str(), O_RDWR | O_CLOEXEC | exclusive);
        writable_ = descriptor_ >= 0;
        if (!writable_ && errno != EACCES && errno != EPERM && errno != EROFS) {
            cannotOpen(path, errno);
        }
    }
    if (descriptor_ < 0) {
        descriptor_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    }
    if (descriptor_ < 0) {
        cannotOpen(path, errno);
    }
    try {
        measure(path);
        if (const int error = lockDescriptor(descriptor_, writable_); error != 0) {
            cannotOpen(path, error);
        }
    } catch (...) {
        ::close(descriptor_);
        throw;
    }
}

ImageFile::~ImageFile() {
    close();
}

void ImageFile::close() noexcept {
    if (descriptor_ != -1) {
        // Whoever needs its writes kept has flushed them; what this says can help nobody else.
        ::close(std::exchange(descriptor_, -1));
    }
}

void ImageFile::measure(const std::string& path) {
    struct stat status {};
    if (::fstat(descriptor_, &status) != 0) {
        cannotOpen(path, errno);
    }
    if (S_ISREG(status.st_mode)) {
        bytes_ = static_cast<std::uint64_t>(status.st_size);
        return;
    }
    if (!S_ISBLK(status.st_mode)) {
        throw OpenError(OpenError::Reason::notBlockDevice, kENOTBLK, path, kNoDevice);
    }
    const off_t end = ::lseek(descriptor_, 0, SEEK_END);
    if (end < 0) {
        cannotOpen(path, errno);
    }
    bytes_ = static_cast<std::uint64_t>(end);
    blockSize_ = deviceValue(descriptor_, kBlockSizeRequest, blockSize_);
    physicalBlockSize_ = deviceValue(descriptor_, kPhysicalBlockSizeRequest, blockSize_);
}

ImageFile::Transferred ImageFile::read(void* into, std::uint64_t offset, std::size_t length) const {
    ssize_t count;
    do {
        count = ::pread(descriptor_, into, length, static_cast<off_t>(offset));
    } while (count < 0 && errno == EINTR);
    return count < 0 ? Transferred{.error = errno}
                     : Transferred{.bytes = static_cast<std::size_t>(count)};
}

ImageFile::Transferred ImageFile::write(const void* from, std::uint64_t offset,
                                        std::size_t length) {
    if (offset > bytes_ || length > bytes_ - offset) {
        return {.error = ENXIO}; // a device does not grow
    }
    ssize_t count;
    do {
        count = ::pwrite(descriptor_, from, length, static_cast<off_t>(offset));
    } while (count < 0 && errno == EINTR);
    unsettled_.store(true);
    return count < 0 ? Transferred{.error = errno}
                     : Transferred{.bytes = static_cast<std::size_t>(count)};
}

int ImageFile::flushToMedium() {
    const MutexLock held(flushing_);
    if (flushError_ == 0 && unsettled_.exchange(false)) {
#if defined(__APPLE__)
        const int result = ::fcntl(descriptor_, F_FULLFSYNC);
#else
        const int result = ::fdatasync(descriptor_);
#endif
        flushError_ = result == 0 ? 0 : errno;
    }
    return flushError_;
}

} // namespace tavelin
