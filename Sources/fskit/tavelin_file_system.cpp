// Probe, load, unload.
#include "fskit/tavelin_file_system.hpp"

#include "check/mount_gate.hpp"
#include "core/driver2/mount_fallback.hpp"
#include "core/driver2/mount_options.hpp"
#include "core/driver2/short_name.hpp"
#include "core/driver2/volume_uuid.hpp"
#include "core/journal/journaled_device.hpp"
#include "core/ntfs_error.hpp"
#include "diagnostics/error_tally.hpp"
#include "diagnostics/event_log.hpp"
#include "diagnostics/log.hpp"
#include "fskit/private/request.hpp"
#include "platform/checked.hpp"
#include "platform/error_numbers.hpp"
#include "platform/information_dictionary.hpp"
#include "platform/os_version.hpp"
#include "platform/utf8.hpp"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <chrono>
#include <utility>

namespace tavelin {

namespace {

constexpr double kFlushInterval = 1.0;        // seconds
constexpr std::chrono::seconds kGateTime{20}; // that a mount may wait for a check
constexpr std::size_t kErrorCharactersMax = 300;
/// Completes "The volume …".
constexpr const char* kMarked = "was marked dirty by another system";

std::string dictionaryText(std::string_view key) {
    return informationText(mainInformationDictionary(), {key}).value_or("");
}

/// What a probe tells of a usable volume.
struct Usable {
    std::string name = "NTFS";
    bool isDirty = false;
};

/// Best effort, as a volume that cannot be read in full should still be offered to its user.
Usable lookAt(const std::shared_ptr<ResourceDevice>& device) {
    Usable found;
    try {
        // Through the journal, as a load opens it: after a power cut the newest label may be there
        // only. Reading alone, nothing is written home.
        const auto journaled = std::make_shared<JournaledDevice>(device);
        static_cast<void>(journaled->replay(true)); // answers no error when only reading
        const auto temporary = NTFSVolume::open(journaled, true);
        const std::string label = temporary->label();
        if (!label.empty()) {
            found.name = label;
        }
        temporary->unmount();
        found.isDirty = check::isMarkedDirty(*journaled);
    } catch (const std::exception&) {
        // What was found so far stands.
    }
    return found;
}

std::shared_ptr<ResourceDevice>
makeDevice(const std::shared_ptr<fskit::FSBlockDeviceResource>& resource) {
    auto device = std::make_shared<ResourceDevice>(resource);
    device->cached = ResourceDevice::kernelCacheEnabled();
    return device;
}

fskit::FSProbeResult probed(const fskit::FSResourceRef& resource) {
    const auto disk = std::dynamic_pointer_cast<fskit::FSBlockDeviceResource>(resource);
    if (!disk) {
        events().event("probe", Fields{{"result", "not_block_device"}});
        return fskit::FSProbeResult::notRecognized();
    }
    const std::shared_ptr<ResourceDevice> device = makeDevice(disk);
    Fields fields{{"bsd", disk->BSDName()},
                  {"size", checkedMultiply(disk->blockCount(), disk->blockSize(),
                                           "resource size overflowed")},
                  {"block", disk->blockSize()}};
    const std::optional<std::uint64_t> serial = NTFSVolume::probe(device);
    if (!serial) {
        fields.insert_or_assign("result", "not_ntfs");
        events().event("probe", fields);
        return fskit::FSProbeResult::notRecognized();
    }
    Usable found = lookAt(device);
    log().info(fmt::format("probe: NTFS serial={:x} name={}", *serial, found.name));
    fields.insert_or_assign("result", "usable");
    if (found.isDirty) {
        fields.insert_or_assign("dirty", true);
    }
    fields.insert_or_assign("writable", disk->isWritable());
    // The event log, unlike the system log, never carries the whole serial.
    fields.insert_or_assign("serial", fmt::format("{:x}", *serial & 0xffff));
    events().event("probe", fields);
    return fskit::FSProbeResult::usable(std::move(found.name), {{Driver2::volumeUUID(*serial)}});
}

/// One load, from its options to the event that reports it.
class Load {
  public:
    Load(const fskit::FSBlockDeviceResource& resource, const fskit::FSTaskOptions& options,
         bool windowsNames)
        : resource_(resource),
          options_(options.taskOptions),
          windowsNames_(options_.windowsNames.value_or(windowsNames)),
          words_(fmt::format("{}", fmt::join(options.taskOptions, " "))),
          requestedReadOnly_(options_.readOnly || !resource.isWritable()) {}

    /// First carries to its end what a power cut interrupted. A volume that may be written to is
    /// journaled from then on.
    Driver2::Opened<std::shared_ptr<NTFSVolume>>
    open(const std::shared_ptr<JournaledDevice>& device) {
        auto opened = Driver2::openWithReadOnlyFallback(requestedReadOnly_, [&](bool readOnly) {
            if (const std::int32_t error = device->replay(readOnly); error != 0) {
                throw NTFSError(fromHost(error));
            }
            wasMarked_ = check::isMarkedDirty(*device);
            if (!readOnly && !passesGate(*device)) {
                throw NTFSError(kEROFS);
            }
            return NTFSVolume::open(device, readOnly);
        });
        opened.value->setWindowsNames(windowsNames_);
        opened.value->setWindowsLinks(options_.windowsLinks);
        if (device->wasRefused() && refusalToWrite_.empty() && notices_.empty()) {
            notices_.push_back(fmt::format("The volume {}.", JournaledDevice::kRefusal));
        } else if (wasMarked_ && refusalToWrite_.empty() && notices_.empty()) {
            notices_.push_back(fmt::format("The volume {}.", kMarked));
        }
        if (device->recovered() > 0) {
            log().info(
                fmt::format("load: completed what was interrupted, {} pages", device->recovered()));
        }
        if (!opened.value->readOnly()) {
            beginJournal(*device, *opened.value);
        }
        return opened;
    }

    /// Why the volume may only be read although it was to be written to; empty otherwise.
    [[nodiscard]] const std::string& refusalToWrite() const noexcept { return refusalToWrite_; }
    [[nodiscard]] const std::vector<std::string>& notices() const noexcept { return notices_; }

    void reportFailure(const std::exception& error) const {
        log().error(fmt::format("load failed: {}", error.what()));
        Fields fields = common(false);
        fields.insert_or_assign("errno", errorCode(error));
        fields.insert_or_assign("err",
                                firstCharacters(repairUTF8(error.what()), kErrorCharactersMax));
        events().event("load", fields);
    }

    /// Of a load beside `active`, the device of the active volume.
    void reportRefusal(std::string_view active) const {
        log().error(
            fmt::format("load failed: {} is active, and no other can be loaded beside it", active));
        Fields fields = common(false);
        fields.insert({{"errno", kEBUSY}, {"why", "active"}});
        events().event("load", fields);
    }

    /// Of a load that the active volume answers.
    void reportAgain(const TavelinVolume& volume) const {
        log().info("load: the volume is active, and stays as it is");
        Fields fields = common(true);
        fields.insert({{"fell_back", false}, {"ro", volume.readOnly()}, {"again", true}});
        events().event("load", fields);
    }

    void reportSuccess(const NTFSVolume& volume, bool fellBack) const {
        log().info(fmt::format("load: mounted readOnly={} windowsNames={} options={}",
                               volume.readOnly(), volume.windowsNames(), words_));
        Fields fields = common(true);
        fields.insert_or_assign("fell_back", fellBack);
        fields.insert_or_assign("ro", volume.readOnly());
        if (wasMarked_) {
            fields.insert_or_assign("dirty", true);
        }
        events().event("load", fields);
    }

  private:
    /// A replay has left the flag as it was before our own use, so that one that is set is
    /// another system's. After a refused replay the volume may hold half a flush, whether or not it
    /// could be marked.
    bool passesGate(JournaledDevice& device) {
        if (refusalToWrite_ = check::reservation(device); !refusalToWrite_.empty()) {
            log().info(fmt::format("load: {}", refusalToWrite_));
            return false;
        }
        if (options_.noCheck || (!device.wasRefused() && !wasMarked_)) {
            return true;
        }
        check::GateVerdict verdict = check::judgeForWriting(
            device, device.wasRefused() ? JournaledDevice::kRefusal : kMarked, kGateTime);
        log().info(fmt::format("load: {}", verdict.message));
        std::string& told = verdict.mayWrite ? notices_.emplace_back() : refusalToWrite_;
        told = std::move(verdict.message);
        return verdict.mayWrite;
    }

    void noteWithoutJournal(std::string_view reason) {
        log().error(fmt::format("load: works without a journal: {}", reason));
        notices_.push_back(fmt::format("The volume has no journal, so that a power cut may leave a "
                                       "change half done: {}.",
                                       reason));
    }

    /// Without one the volume works all the same.
    void beginJournal(JournaledDevice& device, NTFSVolume& volume) {
        try {
            // The mount may have emptied $LogFile, which is the journal's from now on.
            volume.sync();
            if (const std::int32_t error = device.begin(); error != 0) {
                throw NTFSError(fromHost(error));
            }
            if (device.absence() != JournalAbsence::none) {
                noteWithoutJournal(describe(device.absence()));
            }
        } catch (const std::exception& error) {
            noteWithoutJournal(error.what());
        }
    }

    Fields common(bool ok) const {
        return {{"ok", ok},
                {"bsd", resource_.BSDName()},
                {"ro_req", requestedReadOnly_},
                {"media_writable", resource_.isWritable()},
                {"ms", elapsedMilliseconds()},
                {"options", words_}};
    }

    std::int64_t elapsedMilliseconds() const {
        const auto elapsed = std::chrono::steady_clock::now() - start_;
        return std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count();
    }

    const fskit::FSBlockDeviceResource& resource_;
    const Driver2::MountOptions options_;
    const bool windowsNames_;
    const std::string words_;
    const bool requestedReadOnly_;
    bool wasMarked_ = false; ///< dirty, by another system
    std::string refusalToWrite_;
    std::vector<std::string> notices_;
    const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

} // namespace

TavelinFileSystem::TavelinFileSystem(const NameRules& defaults) : defaults_(defaults) {
    events().event("module_start", Fields{{"version", dictionaryText("CFBundleShortVersionString")},
                                          {"build", dictionaryText("CFBundleVersion")},
                                          {"os", operatingSystemVersion()}});
}

const std::string& TavelinFileSystem::typeName() {
    static const std::string name = [] {
        const InformationDictionary dictionary = mainInformationDictionary();
        return Driver2::shortName(&dictionary);
    }();
    return name;
}

fskit::FSProbeResult TavelinFileSystem::probeResource(const fskit::FSResourceRef& resource) {
    try {
        return probed(resource);
    } catch (const std::exception&) {
        // No memory to look with: a probe answers what it knows, never an error.
        return fskit::FSProbeResult::notRecognized();
    }
}

std::shared_ptr<TavelinVolume>
TavelinFileSystem::loaded(const std::shared_ptr<fskit::FSBlockDeviceResource>& disk,
                          const fskit::FSTaskOptions& options) {
    Load load(*disk, options, defaults_.windowsNames);
    refusalToWrite.clear();
    notices.clear();
    errorTally().reset();
    deviceErrorEvents = 0;
    try {
        const std::shared_ptr<ResourceDevice> device = makeDevice(disk);
        const auto journaled = std::make_shared<JournaledDevice>(device);
        const auto [ntfs, fellBack] = load.open(journaled);
        refusalToWrite = load.refusalToWrite();
        notices = load.notices();
        if (fellBack) {
            log().info("load: volume is hibernated or write-protected, mounted read-only");
        }
        auto fresh = std::make_shared<TavelinVolume>(ntfs);
        fresh->device = device;
        const Driver2::MountOptions asked(options.taskOptions);
        fresh->setNormalizesNames(asked.normalizeNames.value_or(defaults_.normalizeNames));
        fresh->setIgnoresCase(asked.ignoreCase.value_or(false));
        if (!ntfs->readOnly()) {
            ntfs->startAutoFlush(kFlushInterval);
        }
        fresh->journal = journaled;
        volume = fresh;
        ++loads_;
        containerStatus = fskit::FSContainerStatus::ready();
        load.reportSuccess(*ntfs, fellBack);
        return fresh;
    } catch (const std::exception& error) {
        load.reportFailure(error);
        throw;
    }
}

std::shared_ptr<ResourceDevice> TavelinFileSystem::openDevice() const {
    const auto device = volume && volume->ntfs->isMounted() ? volume->device.lock() : nullptr;
    return device && !device->resource->isRevoked() ? device : nullptr;
}

std::shared_ptr<TavelinVolume>
TavelinFileSystem::loadedAgain(const fskit::FSBlockDeviceResource& disk,
                               const fskit::FSTaskOptions& options) {
    const Load load(disk, options, defaults_.windowsNames);
    const std::shared_ptr<ResourceDevice> device = volume->device.lock();
    if (const std::string active = device->resource->BSDName(); active != disk.BSDName()) {
        load.reportRefusal(active);
        throw NTFSError(kEBUSY);
    }
    ++loads_;
    load.reportAgain(*volume);
    return volume;
}

void TavelinFileSystem::closeForgotten(const fskit::FSBlockDeviceResource& disk) {
    const std::shared_ptr<ResourceDevice> device = openDevice();
    const bool isSame = device && device->resource->BSDName() == disk.BSDName();
    loads_ = isSame ? loads_ : 0;
    const std::shared_ptr<TavelinVolume> forgotten = std::exchange(volume, nullptr);
    if (!forgotten) {
        return;
    }
    try {
        forgotten->close();
    } catch (const NTFSError& error) {
        log().error(fmt::format("load: the volume loaded before lost changes: {}", error.what()));
    }
}

Outcome<std::shared_ptr<fskit::FSVolume>>
TavelinFileSystem::loadResource(const fskit::FSResourceRef& resource,
                                const fskit::FSTaskOptions& options) {
    const auto disk = std::dynamic_pointer_cast<fskit::FSBlockDeviceResource>(resource);
    if (!disk) {
        events().event("load",
                       Fields{{"ok", false}, {"errno", kENODEV}, {"why", "not_block_device"}});
        return fskit::fs_errorForPOSIXError(kENODEV);
    }
    return attempt<"loadResource">([&]() -> std::shared_ptr<fskit::FSVolume> {
        if (isInUse()) {
            return loadedAgain(*disk, options);
        }
        closeForgotten(*disk);
        return loaded(disk, options);
    });
}

Outcome<void> TavelinFileSystem::unloadResource(const fskit::FSResourceRef& /*resource*/,
                                                const fskit::FSTaskOptions& /*options*/) {
    return attempt<"unloadResource">([&] {
        // Programs use a volume that was loaded once more beside them, for a check, say.
        const bool stays = loads_ > 1 && isInUse();
        loads_ = stays ? loads_ - 1 : 0;
        // Forgotten before the answer: a load may follow as soon as the host has it.
        const std::shared_ptr<TavelinVolume> unloaded =
            stays ? volume : std::exchange(volume, nullptr);
        try {
            if (stays) {
                unloaded->ntfs->sync();
            } else if (unloaded) {
                unloaded->close();
            }
            Fields fields{{"ok", true}, {"errors", errorTally().summary()}};
            if (stays) {
                fields.insert_or_assign("active", true);
            }
            events().event("unload", fields);
        } catch (const std::exception& error) {
            events().event("unload", Fields{{"ok", false},
                                            {"errno", errorCode(error)},
                                            {"errors", errorTally().summary()}});
            throw;
        }
    });
}

} // namespace tavelin
