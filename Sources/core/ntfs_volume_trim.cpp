// Telling the device which clusters are free.
#include "core/ntfs_volume.hpp"
#include "diagnostics/log.hpp"
#include "platform/assert.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <span>
#include <thread>

namespace tavelin {

namespace {

using SteadyClock = std::chrono::steady_clock;

/// Discards between two releases of the lock. Each may be a request of its own to the medium.
constexpr std::size_t kExtentsMax = 128;
/// Longest time in which the lock is left to others after a piece.
constexpr SteadyClock::duration kPauseMax = std::chrono::milliseconds(20);

/// In what ntb_volume_flags() stores.
constexpr std::uint16_t kDirty = 1;

std::uint64_t alignedUp(std::uint64_t value, std::uint64_t unit) noexcept {
    return (value + unit - 1) / unit * unit;
}

} // namespace

std::uint64_t NTFSVolume::trim(const NTFSTrimRange& range, const std::function<bool()>& goesOn) {
    if (readOnly_) {
        throw NTFSError(kEROFS);
    }
    const NTFSStatFS space = statfs();
    const std::uint64_t size = space.totalBytes();
    if (range.offset >= size || range.length < space.clusterSize || range.minimum > kTrimBytesMax) {
        throw NTFSError(kEINVAL);
    }
    TrimProgress trim{.next = range.offset,
                      .end = range.offset + std::min(range.length, size - range.offset),
                      .minimum = range.minimum};
    while (trim.next + space.clusterSize <= trim.end) {
        const SteadyClock::time_point begun = SteadyClock::now();
        const std::int32_t error = locked([&](ntb_vol* vol) { return trimPiece(vol, trim); });
        if (error != 0) {
            throw NTFSError(fromHost(error));
        }
        if (!goesOn()) {
            throw NTFSError(kEINTR);
        }
        // A lock is not fair: whoever waits for it would hardly get it from a thread that takes it
        // again at once. So others have it for as long as this piece had it.
        std::this_thread::sleep_for(
            std::min<SteadyClock::duration>(SteadyClock::now() - begun, kPauseMax));
    }
    return trim.trimmed;
}

std::int32_t NTFSVolume::settleForTrim(ntb_vol* vol) noexcept {
    BlockDevice& device = *box_.device;
    if (isDamaged_) {
        device.noteDamage();
    }
    if (ntb_is_dirty(vol) != 0 || device.backlog().pages > 0) {
        if (const std::int32_t error = ntb_sync(vol); error != 0) {
            return error;
        }
    }
    if (!device.isSettled()) {
        if (const std::int32_t error = device.settle(); error != 0) {
            return error;
        }
    }
    // A bitmap that cannot be trusted may call clusters free that belong to files. A device that is
    // settled has cleared the flag where it was ours.
    const ntb_io io = makeIO(box_);
    std::uint16_t flags = 0;
    if (const std::int32_t error = ntb_volume_flags(&io, &flags); error != 0) {
        return error;
    }
    if ((flags & kDirty) != 0) {
        log().error("trim: refused, as the volume is marked as damaged or in use: what is free is "
                    "known for certain only after a check that clears the mark");
        return EIO;
    }
    return 0;
}

std::int32_t NTFSVolume::trimPiece(ntb_vol* vol, TrimProgress& trim) noexcept {
    // From here on, until the lock is released, the bitmap in memory is that of the medium, and no
    // record is valid that a replay could restore a cluster from, or look for one.
    if (const std::int32_t error = settleForTrim(vol); error != 0) {
        return error;
    }
    BlockDevice& device = *box_.device;
    const std::uint64_t pieceEnd = trim.next + std::min(kTrimBytesMax, trim.end - trim.next);
    std::array<ntb_extent, kExtentsMax> extents;
    std::uint32_t count = 0;
    std::uint64_t next = 0;
    if (const std::int32_t error =
            ntb_free_extents(vol, trim.next, pieceEnd, extents.data(), kExtentsMax, &count, &next);
        error != 0) {
        return error;
    }
    const std::uint64_t unit = std::max<std::uint64_t>(BlockDevice::kPageBytes, device.blockSize());
    bool isAny = false;
    for (const ntb_extent& extent : std::span(extents).first(count)) {
        const std::uint64_t extentEnd = extent.offset + extent.length;
        if (extentEnd == next && next < trim.end && extent.offset > trim.next) {
            next = extent.offset; // it may go on: the next piece sees it from its beginning
            break;
        }
        const std::uint64_t from = alignedUp(extent.offset, unit);
        const std::uint64_t to = extentEnd / unit * unit;
        if (from >= to || to - from < trim.minimum) {
            continue;
        }
        if (const std::int32_t error = device.discard(from, to - from); error != 0) {
            return error;
        }
        trim.trimmed += to - from;
        isAny = true;
    }
    TAVELIN_ASSERT(next > trim.next);
    trim.next = std::max(next, trim.next + 1);
    return isAny ? device.sync() : 0;
}

} // namespace tavelin
