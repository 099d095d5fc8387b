#include "hosting/image_file.hpp"

#include "hosting/image_use.hpp"
#include "hosting/open_error.hpp"
#include "platform/assert.hpp"
#include "platform/disk_file.hpp"
#include "platform/error_numbers.hpp"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#if defined(__APPLE__)
#include <sys/disk.h>
#else
#include <linux/fs.h>
#endif

namespace tavelin {

namespace {

constexpr const char* kNoDevice = "neither a disk image nor a block device";

[[noreturn]] void cannotOpen(const std::string& path, int error) {
    TAVELIN_ASSERT(error != 0);
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

/// Whether a device has its switch against writing on. The system opens it for writing even so.
bool isWriteProtected(int descriptor) {
#if defined(__APPLE__)
    std::uint32_t writable = 1;
    return ::ioctl(descriptor, DKIOCISWRITABLE, &writable) == 0 && writable == 0;
#else
    int readOnly = 0;
    return ::ioctl(descriptor, BLKROGET, &readOnly) == 0 && readOnly != 0;
#endif
}

/// 0, or the errno of a lock that somebody else holds.
int lockDescriptor(int descriptor, bool exclusive) {
    // The lock has to belong to the open file, as flock's does. A plain POSIX lock belongs to the
    // process: it would not keep two volumes of one process apart, and closing any other descriptor
    // of the file would drop it.
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
    if (const std::string use = otherUse(path, !readOnly); !use.empty()) {
        throw OpenError(OpenError::Reason::inUse, fromHost(EBUSY), path, use);
    }
    std::error_code unknown;
    if (std::filesystem::is_block_file(path, unknown)) {
        // Refused for a device that is mounted, or open exclusively elsewhere.
        claim_ = FileDescriptor(path.c_str(), O_RDONLY | O_EXCL);
        if (!claim_) {
            cannotOpen(path, errno);
        }
    }
    // A pipe that is taken for an image must not be waited for; measure() refuses it.
    const int flags = claim_ ? 0 : O_NONBLOCK;
    if (!readOnly) {
        file_ = FileDescriptor(path.c_str(), O_RDWR | flags);
        writable_ = static_cast<bool>(file_);
        // Only what forbids writing leads on to reading. Any other failure is the user's to hear:
        // a device in use must not become a read-only volume that changes under its reader.
        if (!writable_ && errno != EACCES && errno != EPERM && errno != EROFS) {
            cannotOpen(path, errno);
        }
        if (writable_ && claim_ && isWriteProtected(file_.get())) {
            file_.reset();
            writable_ = false;
        }
    }
    if (!file_) {
        file_ = FileDescriptor(path.c_str(), O_RDONLY | flags);
    }
    if (!file_) {
        cannotOpen(path, errno);
    }
    measure(path);
    // Last, as a lock on what turns out to be no image would be in its owner's way for a moment.
    if (const int error = lockDescriptor(file_.get(), writable_); error != 0) {
        cannotOpen(path, error);
    }
}

void ImageFile::measure(const std::string& path) {
    TAVELIN_ASSERT(static_cast<bool>(file_));
    struct stat status {};
    if (::fstat(file_.get(), &status) != 0) {
        cannotOpen(path, errno);
    }
    // Of the open file, not of its path, which may lead elsewhere by now.
    if (!S_ISREG(status.st_mode) && !S_ISBLK(status.st_mode)) {
        throw OpenError(OpenError::Reason::notBlockDevice, kENOTBLK, path, kNoDevice);
    }
    if (const int error = diskFileSize(file_.get(), bytes_); error != 0) {
        cannotOpen(path, error);
    }
    if (S_ISREG(status.st_mode)) {
        return;
    }
    blockSize_ = deviceValue(file_.get(), kBlockSizeRequest, blockSize_);
    physicalBlockSize_ = deviceValue(file_.get(), kPhysicalBlockSizeRequest, blockSize_);
    TAVELIN_ASSERT(blockSize_ > 0 && physicalBlockSize_ > 0);
}

ImageFile::Transferred ImageFile::read(void* into, std::uint64_t offset, std::size_t length) const {
    TAVELIN_ASSERT(static_cast<bool>(file_));
    return file_.readAt(into, length, offset);
}

ImageFile::Transferred ImageFile::write(GatheredBytes parts, std::uint64_t offset) {
    TAVELIN_ASSERT(static_cast<bool>(file_));
    const std::size_t length = bytesIn(parts);
    if (offset > bytes_ || length > bytes_ - offset) {
        return {.error = ENXIO}; // a device does not grow
    }
    const Transferred done = file_.writeAt(parts, offset);
    // After the transfer: a flush that runs beside it need not have taken it along.
    unsettled_.store(true);
    return done;
}

int ImageFile::discard(std::uint64_t offset, std::uint64_t length) {
    TAVELIN_ASSERT(static_cast<bool>(file_));
    const int error = discardRange(file_.get(), offset, length);
    unsettled_.store(true); // also after an error: a part may have gone
    return error;
}

int ImageFile::flushToMedium() {
    const MutexLock held(flushing_);
    TAVELIN_ASSERT(static_cast<bool>(file_));
    // The mark is cleared before the flush, so that a write that runs beside it leaves it set for
    // the next one. A second caller waits for the lock: what it wrote may be in the first's flush,
    // and it may answer success only once that flush has ended.
    if (flushError_ == 0 && unsettled_.exchange(false)) {
#if defined(__APPLE__)
        // fsync() on a Mac ends at the drive's own cache, which a power cut empties.
        const int result = ::fcntl(file_.get(), F_FULLFSYNC);
#else
        const int result = ::fdatasync(file_.get());
#endif
        flushError_ = result == 0 ? 0 : errno;
    }
    return flushError_;
}

} // namespace tavelin
