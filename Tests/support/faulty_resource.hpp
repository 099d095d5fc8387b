// A block device that fails on command.
#pragma once

#include "hosting/image_resource.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace tavelin::test {

// Hands every call on to another resource, after asking a hook what shall become of it. The hook
// runs on the calling thread, several at a time if calls come so, and under the volume's lock; it
// must not send requests to the volume.
class FaultyResource final : public HostResource {
  public:
    enum class Call { read, write, metadataRead, metadataWrite, metadataFlush, flushToMedium };

    struct Transfer {
        Call call;
        std::uint64_t offset; // bytes; 0 for flushes
        std::size_t length;   // bytes; 0 for flushes
    };

    // What becomes of a call. Without a fault it is carried out as it is.
    struct Fault {
        std::optional<fskit::Error> error{}; // nothing is transferred, the call throws this
        std::optional<std::size_t> bytes{};  // a direct read or write transfers at most as many
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

    std::size_t read(std::byte* buffer, std::uint64_t offset, std::size_t length) override {
        const std::size_t admitted = admit({Call::read, offset, length});
        return admitted == 0 ? 0 : device_->read(buffer, offset, admitted);
    }
    std::size_t write(const std::byte* buffer, std::uint64_t offset, std::size_t length) override {
        const std::size_t admitted = admit({Call::write, offset, length});
        return admitted == 0 ? 0 : device_->write(buffer, offset, admitted);
    }
    void metadataRead(std::byte* buffer, std::uint64_t offset, std::size_t length) override {
        admit({Call::metadataRead, offset, length});
        device_->metadataRead(buffer, offset, length);
    }
    void delayedMetadataWrite(const std::byte* buffer, std::uint64_t offset,
                              std::size_t length) override {
        admit({Call::metadataWrite, offset, length});
        device_->delayedMetadataWrite(buffer, offset, length);
    }
    void metadataFlush() override {
        admit({Call::metadataFlush, 0, 0});
        device_->metadataFlush();
    }
    std::optional<fskit::Error> flushToMedium() override {
        const Fault fault = hook_({Call::flushToMedium, 0, 0});
        return fault.error ? fault.error : device_->flushToMedium();
    }

  private:
    // How many of the bytes are to be transferred; throws the fault's error.
    std::size_t admit(const Transfer& transfer) const {
        const Fault fault = hook_(transfer);
        if (fault.error) {
            throw fskit::Error(*fault.error);
        }
        return std::min(transfer.length, fault.bytes.value_or(transfer.length));
    }

    const std::shared_ptr<HostResource> device_;
    const Hook hook_;
};

} // namespace tavelin::test
