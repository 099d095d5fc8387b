// The volume as a whole: construction, activation, synchronising, statistics, its name.
#include "core/driver2/mount_options.hpp"
#include "core/driver2/sync_flags.hpp"
#include "core/driver2/volume_uuid.hpp"
#include "diagnostics/error_tally.hpp"
#include "diagnostics/event_log.hpp"
#include "diagnostics/log.hpp"
#include "diagnostics/op_counter.hpp"
#include "fskit/private/request.hpp"
#include "fskit/tavelin_file_system.hpp"
#include "fskit/tavelin_volume.hpp"
#include "platform/checked.hpp"
#include "platform/error_numbers.hpp"
#include "platform/normal_forms.hpp"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <exception>
#include <string>
#include <unistd.h>

namespace tavelin {

namespace {

constexpr std::int64_t kPreferredIOSize = 1 << 20;

fskit::FSFileName volumeName(NTFSVolume& volume) {
    std::string label;
    try {
        label = volume.label();
    } catch (const std::exception&) {
        // An unreadable label is no reason to refuse the volume.
    }
    return fskit::FSFileName(label.empty() ? "NTFS" : label);
}

std::uint64_t used(std::uint64_t total, std::uint64_t free) {
    if (free > total) {
        fatal("the volume reports more free space than space");
    }
    return total - free;
}

void logOperations(const std::string& counts) {
    log().info("ops: " + counts);
}

} // namespace

TavelinVolume::TavelinVolume(std::shared_ptr<NTFSVolume> volume)
    : FSVolume({{Driver2::volumeUUID(volume->serial())}}, volumeName(*volume)),
      ntfs(std::move(volume)),
      uid_(::getuid()),
      gid_(::getgid()) {}

fskit::FSVolumeSupportedCapabilities TavelinVolume::supportedVolumeCapabilities() const {
    fskit::FSVolumeSupportedCapabilities capabilities;
    capabilities.supportsPersistentObjectIDs = true;
    capabilities.supportsSymbolicLinks = true;
    capabilities.supportsHardLinks = false;
    capabilities.supportsSparseFiles = true;
    capabilities.supports2TBFiles = true;
    capabilities.supportsHiddenFiles = true;
    capabilities.supports64BitObjectIDs = true;
    capabilities.supportsFastStatFS = true;
    capabilities.doesNotSupportImmutableFiles = true;
    capabilities.doesNotSupportSettingFilePermissions = true;
    capabilities.caseFormat = ignoresCase_ ? fskit::FSVolumeCaseFormat::insensitiveCasePreserving
                                           : fskit::FSVolumeCaseFormat::sensitive;
    return capabilities;
}

fskit::FSStatFSResult TavelinVolume::volumeStatistics() {
    fskit::FSStatFSResult result(TavelinFileSystem::typeName());
    NTFSStatFS record;
    try {
        record = ntfs->statfs();
    } catch (const std::exception&) {
        return result; // statistics have no way to fail
    }
    result.blockSize = record.clusterSize;
    result.ioSize = kPreferredIOSize;
    result.totalBlocks = record.totalClusters;
    result.freeBlocks = record.freeClusters;
    result.availableBlocks = record.freeClusters;
    result.usedBlocks = used(record.totalClusters, record.freeClusters);
    result.totalBytes = record.totalBytes();
    result.freeBytes = record.freeBytes();
    result.availableBytes = record.freeBytes();
    result.usedBytes = used(result.totalBytes, result.freeBytes);
    result.totalFiles = record.totalFiles;
    result.freeFiles = record.freeFiles;
    return result;
}

void TavelinVolume::close() {
    std::exception_ptr failed;
    try {
        ntfs->unmount();
    } catch (const NTFSError&) {
        failed = std::current_exception();
    }
    KeptListings::Listings abandoned; // freed after the lock is released
    {
        const MutexLock held(items);
        abandoned = listings_.takeOut();
    }
    // The journal's end is tried in any case: what it still holds may reach its place now.
    if (const std::int32_t error = journal ? journal->close() : 0; error != 0 && !failed) {
        throw NTFSError(fromHost(error));
    }
    if (failed) {
        std::rethrow_exception(failed);
    }
}

Outcome<fskit::FSItemRef> TavelinVolume::activate(const fskit::FSTaskOptions& options) {
    return attempt<"activate">([&]() -> fskit::FSItemRef {
        if (!ntfs->isMounted()) {
            throw NTFSError(kENXIO);
        }
        // Passing through the lock waits for device I/O that is in flight.
        bool hasDevice = false;
        ntfs->withDeviceLock([&] { hasDevice = !device.expired(); });
        // Programs use an active volume by the options that it has.
        const auto asked =
            isActivated_ ? Driver2::MountOptions() : Driver2::MountOptions(options.taskOptions);
        if (asked.windowsNames) {
            ntfs->setWindowsNames(*asked.windowsNames);
        }
        if (asked.normalizeNames) {
            setNormalizesNames(*asked.normalizeNames);
        }
        if (asked.ignoreCase) {
            setIgnoresCase(*asked.ignoreCase);
        }
        if (asked.readOnly) {
            // The options of a mount arrive here, after a load that opened the volume for writing.
            refusesChanges_ = true;
        }
        const std::string words = fmt::format("{}", fmt::join(options.taskOptions, " "));
        log().info(
            fmt::format("activate: windowsNames={} options={}", ntfs->windowsNames(), words));
        const std::shared_ptr<ResourceDevice> underlying = hasDevice ? device.lock() : nullptr;
        events().event("activate", Fields{{"ro", readOnly()},
                                          {"kernel_cache", underlying && underlying->cached},
                                          {"options", words}});
        isActivated_ = true;
        root()->handedOut.fetch_add(1);
        return root();
    });
}

Outcome<void> TavelinVolume::mount(const fskit::FSTaskOptions& /*options*/) {
    return {}; // load and activate have done everything
}

void TavelinVolume::unmount() {
    try {
        // Unlike at deactivation, counts that nobody would see are kept.
        if (log().isEnabled(LogLevel::kInfo)) {
            logOperations(OpCounter::shared().dumpAndReset());
        }
        ntfs->sync();
    } catch (const std::exception&) {
        // An unmount cannot fail; deactivation and unload write again and report.
    }
}

Outcome<void> TavelinVolume::synchronize(fskit::FSSyncFlags flags) {
    const auto raw = static_cast<std::int64_t>(flags);
    OpCounter::shared().hit(fmt::format("synchronize-{}", raw));
    if (!Driver2::syncMustFlush(raw)) {
        return {};
    }
    return attempt<"synchronize">([&] { ntfs->sync(); });
}

Outcome<void> TavelinVolume::deactivate(fskit::FSDeactivateOptions /*options*/) {
    return attempt<"deactivate">([&] {
        isActivated_ = false; // also where writing fails: the host is done with the volume
        if (!ntfs->isMounted()) {
            return;
        }
        const std::string counts = OpCounter::shared().dumpAndReset();
        if (log().isEnabled(LogLevel::kInfo)) {
            logOperations(counts);
        }
        events().event("deactivate", Fields{{"ops", counts}, {"errors", errorTally().summary()}});
        ntfs->sync();
        close();
    });
}

Outcome<fskit::FSFileName> TavelinVolume::setVolumeName(const fskit::FSFileName& newName) {
    return attempt<"setVolumeName">([&] {
        requireChangeable();
        const std::string_view given = name(newName);
        fskit::FSFileName stored = normalizesNames_ && mayHaveOtherForms(given)
                                       ? fskit::FSFileName(composed(given))
                                       : newName;
        ntfs->setLabel(stored.data());
        setName(stored);
        return stored;
    });
}

Outcome<void> TavelinVolume::prefaultCache() {
    return attempt<"mount">([&] { ntfs->populateCache(); });
}

Outcome<std::string> TavelinVolume::label() {
    return attempt<"label">([&] { return ntfs->label(); });
}

Outcome<std::uint64_t> TavelinVolume::filesInUse() {
    return attempt<"filesInUse">([&] { return ntfs->filesInUse(); });
}

Outcome<std::uint64_t> TavelinVolume::trim(const NTFSTrimRange& range,
                                           const std::function<bool()>& goesOn) {
    return request<"trim">([&] {
        requireChangeable();
        return ntfs->trim(range, goesOn);
    });
}

Outcome<NTFSIOStats> TavelinVolume::ioStatistics() {
    return attempt<"ioStatistics">([&] { return ntfs->ioStats(); });
}

} // namespace tavelin
