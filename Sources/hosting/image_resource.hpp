/// The block device that a host offers to its volume.
#pragma once

#include "fskit/api/resource.hpp"
#include "fskit/host_medium.hpp"
#include "hosting/image_file.hpp"

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace tavelin {

/// A block device whose host can say when what was written has reached the medium.
class HostResource : public fskit::FSBlockDeviceResource, public HostMedium {
  public:
    /// Brings the parts together first, for resources that write from one place only.
    void writeGathered(GatheredBytes parts, std::uint64_t offset) override;
    /// kENOTSUP: most media in a program's memory have no use for it.
    [[nodiscard]] std::optional<fskit::Error> discard(std::uint64_t offset,
                                                      std::uint64_t length) override;
    /// Gives the device back to the system, for others to open. Once no volume is loaded from it;
    /// nothing but destruction may follow.
    virtual void release() {}
    /// Lets the kernel mount the device. Whoever opened it meanwhile would not be kept from it, so
    /// the mount should follow at once. Nothing changes where the device is no device node.
    virtual void admitMount() {}
};

/// A resource over a disk-image file or a block-device node. Sizes and offsets are bytes; errors
/// are POSIX ones, in macOS numbers. Any thread may call anything; overlapping transfers are the
/// callers' business.
class ImageResource final : public HostResource {
  public:
    /// How the image is offered as a device. Defaults take it as a whole, as it says itself.
    struct Settings {
        bool readOnly = false; ///< only read, whatever is allowed
        /// What the device says of itself: multiples of 512, or 0 for the device node's own values
        /// (512 for an image file). What does not fill a block is left out at the end.
        std::uint64_t blockSize = 0;
        std::uint64_t physicalBlockSize = 0;
        /// The part of the image that is the device, such as a partition of a disk: its first byte,
        /// and its length, of which 0 means up to the end. Both are cut to what the image has.
        std::uint64_t offset = 0;
        std::uint64_t length = 0;
        /// The first 512 bytes are read from the last ones, where NTFS keeps a copy of its boot
        /// sector, and nothing is written.
        bool bootFromBackup = false;
    };

    /// Opens the image and locks it, see ImageFile. Throws OpenError.
    explicit ImageResource(const std::filesystem::path& path);
    ImageResource(const std::filesystem::path& path, const Settings& settings);

    /// As when the medium is pulled out: every transfer from now on fails with kENXIO.
    void revoke() noexcept { revoked_.store(true); }
    bool isRevoked() const override { return revoked_.load(); }

    /// The open image, which stays owned here: for a host whose system mounts it.
    [[nodiscard]] int descriptor() const noexcept { return file_.descriptor(); }

    /// The last component of the path.
    std::string BSDName() const override { return name_; }
    bool isWritable() const override { return file_.writable(); }
    std::uint64_t blockSize() const override { return blockSize_; }
    std::uint64_t blockCount() const override { return length_ / blockSize_; }
    std::uint64_t physicalBlockSize() const override { return physicalBlockSize_; }

    /// Short only at the end of the device. Once revoked, every transfer fails with kENXIO.
    std::size_t read(std::byte* buffer, std::uint64_t offset, std::size_t length) override;
    std::size_t write(const std::byte* buffer, std::uint64_t offset, std::size_t length) override;
    void writeGathered(GatheredBytes parts, std::uint64_t offset) override;
    /// The kernel's cache is used for every transfer, so these are plain reads and writes.
    void metadataRead(std::byte* buffer, std::uint64_t offset, std::size_t length) override;
    void delayedMetadataWrite(const std::byte* buffer, std::uint64_t offset,
                              std::size_t length) override;
    void metadataFlush() override;
    [[nodiscard]] std::optional<fskit::Error> discard(std::uint64_t offset,
                                                      std::uint64_t length) override;
    /// Makes all earlier writes durable; absent for success. See ImageFile::flushToMedium.
    std::optional<fskit::Error> flushToMedium() override;
    [[nodiscard]] bool allowsReadsBeside() const noexcept override { return true; }
    void release() override { file_.close(); }
    void admitMount() override { file_.giveUpClaim(); }

  private:
    ImageFile file_;
    const std::string name_;
    const std::uint64_t offset_; ///< of the device in the image
    const std::uint64_t length_; ///< never beyond the image's end
    const std::uint64_t blockSize_;
    const std::uint64_t physicalBlockSize_;
    const bool bootFromBackup_;
    std::atomic<bool> revoked_ = false;
};

} // namespace tavelin
