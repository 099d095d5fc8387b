#include "extension/block_device.hpp"

#include "extension/text.hpp"
#include "extension/values.hpp"
#include "platform/error_numbers.hpp"

#include <optional>
#include <utility>

namespace tavelin {

namespace {

off_t deviceOffset(std::uint64_t offset) {
    if (!std::in_range<off_t>(offset)) {
        throw fskit::fs_errorForPOSIXError(kEINVAL);
    }
    return static_cast<off_t>(offset);
}

/// FSKit declares the buffers it only reads from as writable.
void *writeBuffer(const std::byte *buffer) {
    return const_cast<std::byte *>(buffer);
}

} // namespace

/// Runs one call of the resource with its error out-parameter; an error that was set is thrown.
/// A call may set none and still have moved less than asked: that is for the caller to see.
template<typename Call>
auto BlockDeviceAdapter::call(const Call &transfer) const {
    if (isRevoked()) {
        throw fskit::fs_errorForPOSIXError(kENXIO);
    }
    std::optional<fskit::Error> failure;
    decltype(transfer(resource_.get(), nullptr)) result{};
    @autoreleasepool {
        NSError *error = nil;
        result = transfer(resource_.get(), &error);
        if (error != nil) {
            failure = toCore(error);
        }
    }
    if (failure) {
        throw *failure; // not within the pool, which would then not be drained
    }
    return result;
}

std::string BlockDeviceAdapter::BSDName() const {
    return toText(resource_.get().BSDName);
}

std::size_t BlockDeviceAdapter::read(std::byte *buffer, std::uint64_t offset, std::size_t length) {
    const off_t start = deviceOffset(offset);
    return call([&](::FSBlockDeviceResource *resource, NSError **error) {
        return [resource readInto:buffer startingAt:start length:length error:error];
    });
}

std::size_t BlockDeviceAdapter::write(const std::byte *buffer, std::uint64_t offset,
                                      std::size_t length) {
    const off_t start = deviceOffset(offset);
    return call([&](::FSBlockDeviceResource *resource, NSError **error) {
        return [resource writeFrom:writeBuffer(buffer) startingAt:start length:length error:error];
    });
}

void BlockDeviceAdapter::metadataRead(std::byte *buffer, std::uint64_t offset, std::size_t length) {
    const off_t start = deviceOffset(offset);
    if (!call([&](::FSBlockDeviceResource *resource, NSError **error) {
            return [resource metadataReadInto:buffer startingAt:start length:length error:error];
        })) {
        throw fskit::fs_errorForPOSIXError(kEIO);
    }
}

void BlockDeviceAdapter::delayedMetadataWrite(const std::byte *buffer, std::uint64_t offset,
                                              std::size_t length) {
    const off_t start = deviceOffset(offset);
    if (!call([&](::FSBlockDeviceResource *resource, NSError **error) {
            return [resource delayedMetadataWriteFrom:writeBuffer(buffer)
                                           startingAt:start
                                               length:length
                                                error:error];
        })) {
        throw fskit::fs_errorForPOSIXError(kEIO);
    }
}

void BlockDeviceAdapter::metadataFlush() {
    if (!call([&](::FSBlockDeviceResource *resource, NSError **error) {
            return [resource metadataFlushWithError:error];
        })) {
        throw fskit::fs_errorForPOSIXError(kEIO);
    }
}

std::shared_ptr<fskit::FSResource> toCore(FSResource *resource) {
    if (resource == nil) {
        return nullptr;
    }
    if ([resource isKindOfClass:[FSBlockDeviceResource class]]) {
        return std::make_shared<BlockDeviceAdapter>(
            static_cast<::FSBlockDeviceResource *>(resource));
    }
    return std::make_shared<fskit::FSResource>();
}

} // namespace tavelin
