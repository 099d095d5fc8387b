/// A block device that fails on command, for tests and for tools that try what a volume survives.
#pragma once

#include "hosting/image_resource.hpp"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace tavelin {

/// Hands every call on to another resource, after asking a hook what shall become of it. Production
/// never has one in its path. The hook runs on the calling thread, several at a time if calls come
/// so, and under the volume's lock; it must not send requests to the volume.
class FaultyResource final : public HostResource {
  public:
    enum class Call { read, write, metadataRead, metadataWrite, metadataFlush, flushToMedium };

    struct Transfer {
        Call call;
        std::uint64_t offset; ///< bytes; 0 for flushes
        std::size_t length;   ///< bytes; 0 for flushes
    };

    /// What becomes of a call. Without a fault it is carried out as it is.
    struct Fault {
        std::optional<fskit::Error> error{}; ///< nothing is transferred, the call throws this
        std::optional<std::size_t> bytes{};  ///< a direct read or write transfers at most as many
    };

    using Hook = std::function<Fault(const Transfer&)>;

    FaultyResource(std::shared_ptr<HostResource> device, Hook hook)
        : device_(std::move(device)), hook_(std::move(hook)) {}

    bool isRevoked() const override { return device_->isRevoked(); }
    std::string BSDName() const override { return device_->BSDName(); }
    bool isWritable() const override { return device_->isWritable(); }
    std::uint64_t blockSize() const override { return device_->blockSize(); }
    std::uint64_t blockCount() const override { return device_->blockCount(); }
    std::uint64_t physicalBlockSize() const override { return device_->physicalBlockSize(); }

    std::size_t read(std::byte* buffer, std::uint64_t offset, std::size_t length) override;
    std::size_t write(const std::byte* buffer, std::uint64_t offset, std::size_t length) override;
    void metadataRead(std::byte* buffer, std::uint64_t offset, std::size_t length) override;
    void delayedMetadataWrite(const std::byte* buffer, std::uint64_t offset,
                              std::size_t length) override;
    void metadataFlush() override;
    std::optional<fskit::Error> flushToMedium() override;

  private:
    /// How many of the bytes are to be transferred; throws the fault's error.
    std::size_t admit(const Transfer& transfer) const;

    const std::shared_ptr<HostResource> device_;
    const Hook hook_;
};

} // namespace tavelin
