/// A block device over an image file or a device node.
#pragma once

#include "core/block_device.hpp"
#include "platform/file_descriptor.hpp"

#include <atomic>
#include <string>

namespace tavelin {

/// Owns its descriptor for its whole life. Takes no lock: one thread at a time, but for read().
///
/// Errors: EINVAL for a misaligned request on a strict device, EIO for a device that ends early,
/// else the errno of the failed system call. Interrupted calls are repeated, short ones continued.
class FileBlockDevice final : public BlockDevice {
  public:
    /// A page of the cache, so that no transfer needs a bounce buffer.
    static constexpr std::uint32_t kDefaultBlockSize = 4096;

    /// Opens `path`, for writing too unless `readOnly`. The size is the file's, or the device's for
    /// a block device node, rounded down to whole blocks. With `noCache` data does not stay in the
    /// host's buffer cache (see bypassHostCache in platform/disk_file.hpp for what each host can
    /// do), so that what is measured is this system's own cache.
    /// Throws NTFSError with the reason; a block size of 0 stops the process.
    explicit FileBlockDevice(const std::string& path, std::uint32_t blockSize = kDefaultBlockSize,
                             bool readOnly = false, bool noCache = false);

    [[nodiscard]] std::uint64_t size() const noexcept override { return size_; }
    [[nodiscard]] std::uint32_t blockSize() const noexcept override { return blockSize_; }
    /// For other calls on the same file. The device stays the owner.
    [[nodiscard]] int fd() const noexcept { return file_.get(); }

    [[nodiscard]] std::int32_t read(std::byte* destination, std::uint64_t offset,
                                    std::uint64_t length) noexcept override;
    [[nodiscard]] std::int32_t write(const std::byte* source, std::uint64_t offset,
                                     std::uint64_t length) noexcept override;
    [[nodiscard]] std::int32_t writeGathered(GatheredBytes parts,
                                             std::uint64_t offset) noexcept override;
    [[nodiscard]] bool allowsReadsBeside() const noexcept override { return true; }
    /// fsync(2) of the image or device node.
    [[nodiscard]] std::int32_t sync() noexcept override;

    /// Whether a request may go ahead: it is aligned, or this device is not strict. Counts the
    /// misaligned ones.
    [[nodiscard]] bool aligned(std::uint64_t offset, std::uint64_t length) noexcept;

    bool strictAlignment = true;              ///< refuse misaligned requests
    std::atomic<std::int64_t> misaligned = 0; ///< misaligned requests seen

  private:
    FileDescriptor file_; ///< what its close could report, sync() has reported
    std::uint64_t size_ = 0;
    std::uint32_t blockSize_ = 0;
    bool noCache_ = false;
};

} // namespace tavelin
