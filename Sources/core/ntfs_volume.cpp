// The volume's life and what concerns it as a whole. Its items are in the ntfs_volume_ files.
#include "core/ntfs_volume.hpp"

#include "core/private/bridge_text.hpp"
#include "platform/checked.hpp"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace tavelin {

namespace {

constexpr auto kFlushLeeway = std::chrono::milliseconds(100);

/// Dirty and pending pages of metadata above which a sync is made between two operations. They take
/// memory on top of the cache's.
constexpr std::uint64_t kPendingPagesMax = 1024;
/// Pages that one operation may dirty before it could reach the cache's own write-back mark. There
/// the cache writes back in runs longer than NTB_CACHED_BYTES_MAX, which the journal would mistake
/// for bulk data during a bulk write.
constexpr std::uint64_t kOperationPagesMin = 1024;
/// Dirty pages of whatever kind above which a sync is made.
constexpr std::uint64_t kDirtyPagesMax = NTB_DIRTY_PAGES_MAX - kOperationPagesMin;
static_assert(kPendingPagesMax <= kDirtyPagesMax);

} // namespace

std::optional<std::uint64_t> NTFSVolume::probe(std::shared_ptr<BlockDevice> device) {
    DeviceBox box(std::move(device));
    const ntb_io io = makeIO(box);
    std::uint64_t serial = 0;
    if (ntb_probe(&io, &serial) != 0) {
        return std::nullopt;
    }
    return serial;
}

std::shared_ptr<NTFSVolume> NTFSVolume::open(std::shared_ptr<BlockDevice> device, bool readOnly) {
    return std::make_shared<NTFSVolume>(OnlyOpenMayConstruct{}, std::move(device), readOnly);
}

NTFSVolume::NTFSVolume(OnlyOpenMayConstruct, std::shared_ptr<BlockDevice> device, bool readOnly)
    : box_(std::move(device)) {
    const ntb_io io = makeIO(box_);
    std::int32_t error = 0;
    vol_ = ntb_mount(&io, readOnly ? 1 : 0, &error);
    if (vol_ == nullptr) {
        throw NTFSError(error != 0 ? fromHost(error) : kEIO);
    }
    readOnly_ = ntb_is_readonly(vol_) != 0;
    serial_ = ntb_serial(vol_);
}

NTFSVolume::~NTFSVolume() {
    try {
        unmount();
    } catch (const std::exception&) {
        return; // an NTFSError, or no memory for one: nobody is left to hear it
    }
}

void NTFSVolume::check(std::int32_t result) {
    if (result == EIO && !box_.hasFailed) {
        isDamaged_ = true;
    }
    if (result != 0) {
        throw NTFSError(fromHost(result));
    }
}

void NTFSVolume::unmount() {
    const auto closeLocked = [this]() -> std::int32_t {
        const MutexLock held(lock_);
        // A tick that already waits for the lock finds no volume.
        flushTimer_.reset();
        // Nobody may have the device once this returns: its owner may close it.
        box_.device->awaitReadsBeside();
        const std::int32_t error = ntb_umount(std::exchange(vol_, nullptr));
        // What could not be written is given up with the volume, unless it waits in the device.
        if (isDamaged_ || (error != 0 && box_.device->backlog().capacity == 0)) {
            box_.device->noteDamage();
        }
        return error;
    };
    check(closeLocked());
}

void NTFSVolume::startAutoFlush(double interval) {
    const std::shared_ptr<RepeatingTimer> timer =
        makeRepeatingTimer(weak_from_this(), TimerSchedule::every(interval, kFlushLeeway),
                           [](NTFSVolume& volume) { volume.flushTick(); });
    {
        const MutexLock held(lock_);
        if (flushTimer_ != nullptr) {
            flushTimer_->cancel();
        }
        flushTimer_ = timer;
    }
    timer->start();
}

void NTFSVolume::flushTick() noexcept {
    const MutexLock held(lock_);
    if (vol_ == nullptr) {
        return;
    }
    if (isDamaged_) {
        box_.device->noteDamage();
    }
    // A failure is left to the next tick; the device has reported it already.
    if (box_.device->backlog().pages > 0 || ntb_is_dirty(vol_) != 0) {
        static_cast<void>(ntb_sync(vol_));
    } else if (!box_.device->isSettled()) {
        // Nothing has changed since the tick before.
        static_cast<void>(box_.device->settle());
    }
}

void NTFSVolume::flushIfNearCapacity() noexcept {
    const BlockDevice::Backlog backlog = box_.device->backlog();
    if (backlog.capacity == 0) {
        return;
    }
    ntb_backlog cached{};
    ntb_get_backlog(vol_, &cached);
    // File data takes no room in the record. What the sync itself adds must find room beside what
    // the next operation may.
    const std::uint64_t metadata = cached.metadata + backlog.pages;
    if (metadata > std::min(kPendingPagesMax, backlog.capacity / 4) ||
        metadata + cached.deferred > backlog.capacity / 4 * 3 ||
        cached.metadata + cached.file_data > kDirtyPagesMax) {
        // A failure is left to the sync that somebody waits for: nothing is lost by it.
        static_cast<void>(ntb_sync(vol_));
    }
}

void NTFSVolume::checkInvariants() const noexcept {
    TAVELIN_ASSERT(vol_ != nullptr);
    ntb_check_invariants(vol_);
    box_.device->checkInvariants();
    const BlockDevice::Backlog backlog = box_.device->backlog();
    TAVELIN_ASSERT(backlog.capacity == 0 || backlog.pages <= backlog.capacity);
}

bool NTFSVolume::isMounted() const {
    const MutexLock held(lock_);
    return vol_ != nullptr;
}

// The handle is read without the lock here and in setWindowsNames: it changes only in unmount(),
// after which neither may be called, and the flag behind it is set before the volume is shared.
bool NTFSVolume::windowsNames() const TAVELIN_NO_THREAD_SAFETY_ANALYSIS {
    if (vol_ == nullptr) {
        fatal("windowsNames was read after unmount");
    }
    return ntb_windows_names(vol_) != 0;
}

void NTFSVolume::setWindowsNames(bool on) TAVELIN_NO_THREAD_SAFETY_ANALYSIS {
    if (vol_ == nullptr) {
        fatal("windowsNames was set after unmount");
    }
    ntb_set_windows_names(vol_, on ? 1 : 0);
}

void NTFSVolume::readOwners() {
    locked([](ntb_vol* vol) { ntb_set_reads_owners(vol, 1); });
}

std::string NTFSVolume::label() {
    return locked([](ntb_vol* vol) -> std::string {
        const BridgeOwned<char> text(ntb_label(vol));
        return text != nullptr ? text.get() : "";
    });
}

void NTFSVolume::setLabel(std::string_view label) {
    const BridgeText text(label);
    check(locked([&](ntb_vol* vol) { return ntb_set_label(vol, text.cString()); }));
}

NTFSStatFS NTFSVolume::statfs() {
    ntb_statfs record{};
    check(locked([&](ntb_vol* vol) { return ntb_statfs_get(vol, &record); }));
    return {.clusterSize = record.clusterSize,
            .totalClusters = record.totalClusters,
            .freeClusters = record.freeClusters,
            .totalFiles = record.totalFiles,
            .freeFiles = record.freeFiles};
}

std::uint64_t NTFSVolume::filesInUse() {
    std::uint64_t count = 0;
    check(locked([&](ntb_vol* vol) { return ntb_count_files(vol, &count); }));
    return count;
}

NTFSIOStats NTFSVolume::ioStats() {
    ntb_stats record{};
    locked([&](ntb_vol* vol) { ntb_get_stats(vol, &record); });
    return {.deviceReads = record.deviceReads,
            .deviceWrites = record.deviceWrites,
            .readBytes = record.readBytes,
            .writeBytes = record.writeBytes,
            .unalignedOps = record.unalignedOps,
            .cacheHits = record.cacheHits,
            .cacheMisses = record.cacheMisses,
            .dirtyPages = record.dirtyPages};
}

void NTFSVolume::populateCache() {
    locked([](ntb_vol* vol) { ntb_populate_cache(vol); });
}

void NTFSVolume::sync() {
    check(locked([](ntb_vol* vol) { return ntb_sync(vol); }));
}

} // namespace tavelin
