#include "core/file_block_device.hpp"

#include "core/ntfs_error.hpp"
#include "platform/checked.hpp"
#include "platform/disk_file.hpp"
#include "platform/error_numbers.hpp"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace tavelin {

FileBlockDevice::FileBlockDevice(const std::string& path, std::uint32_t blockSize, bool readOnly,
                                 bool noCache)
    : blockSize_(blockSize), noCache_(noCache) {
    if (blockSize == 0) {
        fatal("a file block device was made with a block size of 0");
    }
    const int access = readOnly ? O_RDONLY : O_RDWR;
    file_ = FileDescriptor(path.c_str(), access);
    if (!file_) {
        throw NTFSError(fromHost(errno));
    }
    if (noCache_) {
        bypassHostCache(fd());
    }
    std::uint64_t bytes = 0;
    if (const int error = diskFileSize(fd(), bytes); error != 0) {
        throw NTFSError(fromHost(error));
    }
    size_ = bytes / blockSize * blockSize;
}

bool FileBlockDevice::aligned(std::uint64_t offset, std::uint64_t length) noexcept {
    if (offset % blockSize_ == 0 && length % blockSize_ == 0) {
        return true;
    }
    ++misaligned;
    return !strictAlignment;
}

std::int32_t FileBlockDevice::read(std::byte* destination, std::uint64_t offset,
                                   std::uint64_t length) noexcept {
    if (!aligned(offset, length)) {
        return EINVAL;
    }
    const FileDescriptor::Transferred done = file_.readAt(destination, length, offset);
    if (done.error != 0) {
        return done.error;
    }
    if (done.bytes < length) {
        return EIO; // the device ends before the request does
    }
    if (noCache_ && length > 0) {
        forgetHostCache(fd(), offset, length);
    }
    return 0;
}

std::int32_t FileBlockDevice::write(const std::byte* source, std::uint64_t offset,
                                    std::uint64_t length) noexcept {
    if (!aligned(offset, length)) {
        return EINVAL;
    }
    // No end-of-device test: the bridge never writes past the size it was given.
    return file_.writeAt(source, length, offset).error;
}

std::int32_t FileBlockDevice::writeGathered(GatheredBytes parts, std::uint64_t offset) noexcept {
    return aligned(offset, bytesIn(parts)) ? file_.writeAt(parts, offset).error : EINVAL;
}

std::int32_t FileBlockDevice::sync() noexcept {
    if (uninterrupted([&] { return fsync(fd()); }) != 0) {
        return errno;
    }
    if (noCache_) {
        forgetHostCache(fd(), 0, 0); // what was written is clean only now
    }
    return 0;
}

} // namespace tavelin
