// File contents and link targets. Reads and writes are not counted: they are too many.
#include "fskit/private/request.hpp"
#include "fskit/tavelin_volume.hpp"
#include "platform/checked.hpp"
#include "platform/error_numbers.hpp"

#include <algorithm>
#include <limits>

namespace tavelin {

namespace {

std::uint64_t unsignedOffset(std::int64_t offset) {
    if (offset < 0) {
        fatal("a file offset is negative");
    }
    return static_cast<std::uint64_t>(offset);
}

} // namespace

Outcome<std::size_t> TavelinVolume::read(const fskit::FSItemRef& item, std::int64_t offset,
                                         std::size_t length,
                                         fskit::FSMutableFileDataBuffer& buffer) {
    return attempt<"read">([&] {
        return ntfs->read(n(item).reference, unsignedOffset(offset), buffer.mutableBytes(),
                          std::min(length, buffer.length()));
    });
}

Outcome<fskit::FSWriteFileResult>
TavelinVolume::write(std::span<const std::byte> contents, const fskit::FSItemRef& item,
                     std::int64_t offset, const fskit::FSItemGetAttributesRequest* attributes) {
    return attempt<"write">([&] {
        NItem& own = n(item);
        requireChangeable();
        if (contents.empty() && attributes != nullptr) {
            // The volume does nothing for it, and so has nothing to tell.
            return fskit::FSWriteFileResult{0,
                                            described(ntfs->attributes(own.reference), own.parent),
                                            ntfs->statfs().freeBytes()};
        }
        own.isUnflushed.store(true, std::memory_order_relaxed);
        const NTFSWrite written =
            ntfs->write(own.reference, unsignedOffset(offset), contents, attributes != nullptr);
        return fskit::FSWriteFileResult{written.count, described(written.item, own.parent),
                                        written.freeBytes};
    });
}

Outcome<fskit::FSFileName> TavelinVolume::readSymbolicLink(const fskit::FSItemRef& item) {
    return request<"readSymbolicLink">(
        [&] { return fskit::FSFileName(ntfs->readlink(n(item).reference)); });
}

Outcome<void> TavelinVolume::allocate(const fskit::FSItemRef& item, std::uint64_t offset,
                                      std::uint64_t length, NTFSAllocation how) {
    return request<"allocate">([&] {
        NItem& own = n(item);
        requireChangeable();
        own.isUnflushed.store(true, std::memory_order_relaxed);
        ntfs->allocate(own.reference, offset, length, how);
    });
}

Outcome<std::uint64_t> TavelinVolume::seek(const fskit::FSItemRef& item, std::uint64_t offset,
                                           bool forHole) {
    return attempt<"seek">([&] { return ntfs->seek(n(item).reference, offset, forHole); });
}

Outcome<fskit::FSPreallocateResult>
TavelinVolume::preallocateSpace(const fskit::FSItemRef& item, std::int64_t offset,
                                std::size_t length, fskit::FSPreallocateFlags flags) {
    return request<"preallocateSpace">([&]() -> Outcome<fskit::FSPreallocateResult> {
        NItem& own = n(item);
        requireChangeable();
        if ((flags & fskit::FSPreallocateFlagsContiguous) != 0) {
            return fskit::fs_errorForPOSIXError(kENOTSUP);
        }
        if (offset < 0 && (flags & fskit::FSPreallocateFlagsFromEOF) == 0) {
            return fskit::fs_errorForPOSIXError(kEINVAL);
        }
        const NTFSAttributes before = ntfs->attributes(own.reference);
        const std::uint64_t start = (flags & fskit::FSPreallocateFlagsFromEOF) != 0
                                        ? std::max(before.size, before.allocSize)
                                        : unsignedOffset(offset);
        constexpr std::uint64_t kEndMax = std::numeric_limits<std::int64_t>::max();
        if (start > kEndMax || length > kEndMax - start) {
            return fskit::fs_errorForPOSIXError(kEFBIG);
        }
        if (length != 0) {
            own.isUnflushed.store(true, std::memory_order_relaxed);
            const bool stays = (flags & fskit::FSPreallocateFlagsPersist) != 0;
            if (!stays) { // also of an allocation that fails half-way
                own.reservedFrom.store(std::min(own.reservedFrom.load(), before.allocSize));
            }
            ntfs->allocate(own.reference, start, length, NTFSAllocation::reserveBehindEnd);
            if (stays && start + length > own.reservedFrom.load()) {
                // Space that stays makes all stay that is before it.
                own.reservedFrom.store(start + length < before.allocSize ? start + length
                                                                         : NItem::kNothingReserved);
            }
        }
        const NTFSAttributes after = ntfs->attributes(own.reference);
        return fskit::FSPreallocateResult{
            static_cast<std::size_t>(after.allocSize - std::min(before.allocSize, after.allocSize)),
            described(after, own.parent), ntfs->statfs().freeBytes()};
    });
}

Outcome<std::uint64_t> TavelinVolume::seekRegion(const fskit::FSItemRef& item, std::int64_t offset,
                                                 fskit::FSSeekRegion region) {
    // A program's own offset, which nobody may have looked at before.
    if (offset < 0) {
        return fskit::fs_errorForPOSIXError(kEINVAL);
    }
    return seek(item, static_cast<std::uint64_t>(offset), region == fskit::FSSeekRegion::hole);
}

} // namespace tavelin
