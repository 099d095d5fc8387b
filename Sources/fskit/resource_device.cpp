#include "fskit/resource_device.hpp"

#include "core/ntfs_error.hpp"
#include "diagnostics/log.hpp"
#include "diagnostics/op_counter.hpp"
#include "fskit/host_medium.hpp"
#include "platform/checked.hpp"
#include "platform/error_numbers.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>

namespace tavelin {

namespace {

constexpr std::uint64_t kUncachedChunk = 8u << 20;
constexpr std::uint64_t kSmallestBlock = 512;

std::atomic<bool> kernelCache{false};

/// Logs and records a failed call and returns its errno.
std::int32_t fail(std::string_view op, std::uint64_t offset, std::uint64_t length,
                  std::int32_t error, std::string_view description) noexcept {
    try {
        log().error(fmt::format("{} failed off={} len={}: {}", op, offset, length, description));
    } catch (const std::bad_alloc&) {
        // The line is lost, the error itself is still answered.
    }
    deviceError(op, error, offset, length, description);
    return error;
}

std::uint32_t usableBlockSize(const fskit::FSBlockDeviceResource& resource) {
    const std::uint64_t bytes =
        std::max({resource.physicalBlockSize(), resource.blockSize(), kSmallestBlock});
    if (bytes > UINT32_MAX) {
        fatal("a resource's block size overflowed");
    }
    return static_cast<std::uint32_t>(bytes);
}

} // namespace

ResourceDevice::ResourceDevice(std::shared_ptr<fskit::FSBlockDeviceResource> deviceResource)
    : resource(std::move(deviceResource)), blockSize_(usableBlockSize(*resource)) {
    const std::uint64_t bytes =
        checkedMultiply(resource->blockSize(), resource->blockCount(), "resource size overflowed");
    size_ = bytes / blockSize_ * blockSize_;
}

bool ResourceDevice::kernelCacheEnabled() noexcept {
    return kernelCache;
}

void ResourceDevice::enableKernelCache() noexcept {
    kernelCache = true;
}

std::int32_t ResourceDevice::errorNumber(const fskit::Error& error) noexcept {
    const bool isErrno = error.isPOSIX() && error.code() > 0 && error.code() <= INT32_MAX;
    return isErrno ? toHost(static_cast<std::int32_t>(error.code())) : EIO;
}

template<typename Body>
std::int32_t ResourceDevice::attempt(std::string_view op, std::uint64_t offset,
                                     std::uint64_t length, Body body) noexcept {
    try {
        OpCounter::shared().hit(op);
        return body();
    } catch (const fskit::Error& error) {
        return fail(op, offset, length, errorNumber(error), error.localizedDescription());
    } catch (const std::exception& error) {
        return fail(op, offset, length, EIO, error.what());
    }
}

template<typename Transfer>
std::int32_t ResourceDevice::transferAll(std::string_view op, std::uint64_t offset,
                                         std::uint64_t length, Transfer transfer) noexcept {
    return attempt(op, offset, length, [&] {
        const std::uint64_t chunk = cached ? maxChunk : kUncachedChunk;
        for (std::uint64_t done = 0; done < length;) {
            const std::uint64_t count = transfer(done, std::min(chunk, length - done));
            if (count < 1) {
                return EIO;
            }
            done += std::min(count, length - done);
        }
        return 0;
    });
}

std::int32_t ResourceDevice::read(std::byte* destination, std::uint64_t offset,
                                  std::uint64_t length) noexcept {
    return transferAll("read", offset, length, [&](std::uint64_t done, std::uint64_t count) {
        if (cached) {
            resource->metadataRead(destination + done, offset + done, count);
            return count;
        }
        return std::uint64_t{resource->read(destination + done, offset + done, count)};
    });
}

std::int32_t ResourceDevice::write(const std::byte* source, std::uint64_t offset,
                                   std::uint64_t length) noexcept {
    return transferAll("write", offset, length, [&](std::uint64_t done, std::uint64_t count) {
        if (cached) {
            resource->delayedMetadataWrite(source + done, offset + done, count);
            return count;
        }
        return std::uint64_t{resource->write(source + done, offset + done, count)};
    });
}

std::int32_t ResourceDevice::writeGathered(GatheredBytes parts, std::uint64_t offset) noexcept {
    auto* const medium = cached ? nullptr : dynamic_cast<HostMedium*>(resource.get());
    if (medium == nullptr) {
        return BlockDevice::writeGathered(parts, offset);
    }
    return attempt("write", offset, bytesIn(parts), [&] {
        medium->writeGathered(parts, offset);
        return 0;
    });
}

std::int32_t ResourceDevice::discard(std::uint64_t offset, std::uint64_t length) noexcept {
    auto* const medium = dynamic_cast<HostMedium*>(resource.get());
    if (medium == nullptr) {
        return EOPNOTSUPP;
    }
    return attempt("discard", offset, length, [&] {
        const std::optional<fskit::Error> error = medium->discard(offset, length);
        // A medium without it has not failed.
        if (error && !(error->isPOSIX() && error->code() == kENOTSUP)) {
            throw fskit::Error(*error);
        }
        return error ? EOPNOTSUPP : 0;
    });
}

bool ResourceDevice::allowsReadsBeside() const noexcept {
    const auto* const medium = dynamic_cast<const HostMedium*>(resource.get());
    return medium != nullptr && medium->allowsReadsBeside();
}

std::int32_t ResourceDevice::sync() noexcept {
    try {
        if (cached) {
            resource->metadataFlush();
        }
        if (auto* const medium = dynamic_cast<HostMedium*>(resource.get())) {
            if (const auto error = medium->flushToMedium()) {
                return fail("sync", 0, 0, errorNumber(*error), error->localizedDescription());
            }
        }
        return 0;
    } catch (const fskit::Error& error) {
        return errorNumber(error);
    } catch (const std::exception&) {
        return EIO; // not an error of the device: nothing more is known of it
    }
}

} // namespace tavelin
