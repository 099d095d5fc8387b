#include "core/file_block_device.hpp"

#include "core/ntfs_error.hpp"
#include "platform/checked.hpp"
#include "platform/disk_file.hpp"
#include "platform/error_numbers.hpp"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace tavelin {

namespace {

/// Most bytes asked of one system call: macOS refuses requests of 2 GiB and more.
constexpr std::uint64_t kTransferBytesMax = 1ull << 30;

/// The result of a system call that is repeated for as long as a signal interrupts it.
template<typename Call>
auto uninterrupted(Call call) {
    auto result = call();
    while (result < 0 && errno == EINTR) {
        result = call();
    }
    return result;
}

} // namespace

FileBlockDevice::FileBlockDevice(const std::string& path, std::uint32_t blockSize, bool readOnly,
                                 bool noCache)
    : blockSize_(blockSize), noCache_(noCache) {
    if (blockSize == 0) {
        fatal("a file block device was made with a block size of 0");
    }
    const int access = readOnly ? O_RDONLY : O_RDWR;
    fd_ = uninterrupted([&] { return open(path.c_str(), access | O_CLOEXEC); });
    if (fd_ < 0) {
        throw NTFSError(fromHost(errno));
    }
    if (noCache_) {
        bypassHostCache(fd_);
    }
    std::uint64_t bytes = 0;
    if (const int error = diskFileSize(fd_, bytes); error != 0) {
        close(fd_);
        throw NTFSError(fromHost(error));
    }
    size_ = bytes / blockSize * blockSize;
}

FileBlockDevice::~FileBlockDevice() {
    close(fd_); // what a close could report, sync() has reported
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
    for (std::uint64_t done = 0; done < length;) {
        const auto count = uninterrupted([&] {
            return pread(fd_, destination + done, std::min(length - done, kTransferBytesMax),
                         static_cast<off_t>(offset + done));
        });
        if (count < 0) {
            return errno;
        }
        if (count == 0) {
            return EIO; // the device ends before the request does
        }
        done += static_cast<std::uint64_t>(count);
    }
    if (noCache_ && length > 0) {
        forgetHostCache(fd_, offset, length);
    }
    return 0;
}

std::int32_t FileBlockDevice::write(const std::byte* source, std::uint64_t offset,
                                    std::uint64_t length) noexcept {
    if (!aligned(offset, length)) {
        return EINVAL;
    }
    // No end-of-device test: the bridge never writes past the size it was given.
    for (std::uint64_t done = 0; done < length;) {
        const auto count = uninterrupted([&] {
            return pwrite(fd_, source + done, std::min(length - done, kTransferBytesMax),
                          static_cast<off_t>(offset + done));
        });
        if (count < 0) {
            return errno;
        }
        done += static_cast<std::uint64_t>(count);
    }
    return 0;
}

std::int32_t FileBlockDevice::sync() noexcept {
    if (uninterrupted([&] { return fsync(fd_); }) != 0) {
        return errno;
    }
    if (noCache_) {
        forgetHostCache(fd_, 0, 0); // what was written is clean only now
    }
    return 0;
}

} // namespace tavelin
