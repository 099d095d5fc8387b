/// The block device that a host's resource is to the volume.
#pragma once

#include "core/block_device.hpp"
#include "fskit/api/resource.hpp"

#include <atomic>
#include <memory>
#include <string_view>

namespace tavelin {

/// Reads and writes through a block-device resource, in chunks and across short transfers. One
/// thread at a time: under the volume's lock, once a volume shares the device, but for reads where
/// allowsReadsBeside(); `cached` may be looked at from any thread.
///
/// A failed call is logged, tallied and, for the first ones since a load, written to the event log
/// (deviceError). Results are the host's errno: the number of a POSIX error, else EIO.
class ResourceDevice final : public BlockDevice {
  public:
    /// Largest piece of a cached transfer, in bytes; uncached ones go in pieces of 8 MiB.
    static constexpr std::uint64_t maxChunk = 1u << 20;

    /// `resource` must not be null.
    explicit ResourceDevice(std::shared_ptr<fskit::FSBlockDeviceResource> resource);

    /// The larger of the resource's physical and logical block size, at least 512.
    [[nodiscard]] std::uint32_t blockSize() const noexcept override { return blockSize_; }
    [[nodiscard]] std::uint64_t size() const noexcept override { return size_; }

    /// All of the range or an error, although the resource may transfer less in one call.
    [[nodiscard]] std::int32_t read(std::byte* destination, std::uint64_t offset,
                                    std::uint64_t length) noexcept override;
    [[nodiscard]] std::int32_t write(const std::byte* source, std::uint64_t offset,
                                     std::uint64_t length) noexcept override;
    /// Without bringing the parts together where the resource is a HostMedium and not cached.
    [[nodiscard]] std::int32_t writeGathered(GatheredBytes parts,
                                             std::uint64_t offset) noexcept override;
    /// EOPNOTSUPP where the resource is no HostMedium.
    [[nodiscard]] std::int32_t discard(std::uint64_t offset,
                                       std::uint64_t length) noexcept override;
    /// Where the resource is a HostMedium that does.
    [[nodiscard]] bool allowsReadsBeside() const noexcept override;
    /// Flushes the kernel's buffers when cached. Uncached writes have already left this process; a
    /// HostMedium is asked for more, of any other resource there is nothing to ask.
    [[nodiscard]] std::int32_t sync() noexcept override;

    /// Whether I/O goes through the kernel's buffer cache. Set before the device is used.
    std::atomic<bool> cached{false};

    /// Whether newly made devices are to be cached; off until enableKernelCache(), which the front
    /// end obeys when it loads a volume.
    [[nodiscard]] static bool kernelCacheEnabled() noexcept;
    /// For the rest of the process, and for devices that are made from now on.
    static void enableKernelCache() noexcept;

    /// The host's errno for an error of the resource.
    [[nodiscard]] static std::int32_t errorNumber(const fskit::Error& error) noexcept;

    /// Kept for as long as the device lives.
    const std::shared_ptr<fskit::FSBlockDeviceResource> resource;

  private:
    /// Counts one call of the resource, runs `body`, which answers an errno, and turns what it
    /// throws into the host's errno, which is recorded.
    template<typename Body>
    std::int32_t attempt(std::string_view op, std::uint64_t offset, std::uint64_t length,
                         Body body) noexcept;
    /// Calls transfer(done, count), which answers how much of the chunk it moved, until all of the
    /// range is done; a transfer of nothing is EIO.
    template<typename Transfer>
    std::int32_t transferAll(std::string_view op, std::uint64_t offset, std::uint64_t length,
                             Transfer transfer) noexcept;

    std::uint32_t blockSize_;
    std::uint64_t size_;
};

} // namespace tavelin
