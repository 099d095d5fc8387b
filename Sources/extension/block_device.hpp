/// FSKit's block device as the front end sees it.
#pragma once

#include "extension/memory.hpp"
#include "fskit/api/resource.hpp"

#import <FSKit/FSKit.h>
#include <memory>
#include <string>

namespace tavelin {

/// Passes calls through to the resource it keeps; any thread. A revoked resource, one whose disk is
/// gone, is not asked any more: its transfers fail with ENXIO at once.
class BlockDeviceAdapter final : public fskit::FSBlockDeviceResource {
  public:
    /// Keeps the resource for as long as the adapter lives.
    explicit BlockDeviceAdapter(::FSBlockDeviceResource* resource) : resource_(resource) {}

    bool isRevoked() const override { return resource_.get().revoked; }
    /// "disk4s1", for logs and events.
    std::string BSDName() const override;
    bool isWritable() const override { return resource_.get().writable; }
    std::uint64_t blockSize() const override { return resource_.get().blockSize; }
    std::uint64_t blockCount() const override { return resource_.get().blockCount; }
    std::uint64_t physicalBlockSize() const override { return resource_.get().physicalBlockSize; }

    /// Synchronous calls of FSKit. Its errors are thrown as Error.
    std::size_t read(std::byte* buffer, std::uint64_t offset, std::size_t length) override;
    std::size_t write(const std::byte* buffer, std::uint64_t offset, std::size_t length) override;
    void metadataRead(std::byte* buffer, std::uint64_t offset, std::size_t length) override;
    void delayedMetadataWrite(const std::byte* buffer, std::uint64_t offset,
                              std::size_t length) override;
    void metadataFlush() override;

  private:
    /// Runs one call unless the resource is revoked, and throws its error.
    template<typename Call>
    auto call(const Call& transfer) const;

    const Strong<::FSBlockDeviceResource*> resource_;
};

/// The resource as the front end takes it: an adapter for a block device, a plain resource for any
/// other kind, null for nil.
[[nodiscard]] std::shared_ptr<fskit::FSResource> toCore(FSResource* resource);

} // namespace tavelin
