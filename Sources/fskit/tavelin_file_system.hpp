/// The file-system module: probes resources, loads one volume, unloads it, and answers checks.
///
/// Threads: requests may come on any thread, but the host does not overlap load, unload and check
/// of one module. A check's task is completed after the check has returned, on the utility queue.
#pragma once

#include "fskit/api/file_system.hpp"
#include "fskit/tavelin_volume.hpp"

#include <memory>
#include <string>
#include <vector>

namespace tavelin {

class TavelinFileSystem final : public fskit::FSUnaryFileSystem {
  public:
    /// What holds for names unless a mount's options say otherwise.
    struct NameRules {
        bool windowsNames = false;   ///< refuse what Windows cannot represent
        bool normalizeNames = false; ///< see TavelinVolume::setNormalizesNames()
    };

    /// Writes the event "module_start".
    TavelinFileSystem() : TavelinFileSystem(NameRules()) {}
    explicit TavelinFileSystem(const NameRules& defaults);

    /// The loaded volume; null when none is: before the first load, after one that failed, and
    /// after the last unload.
    std::shared_ptr<TavelinVolume> volume;
    /// Why the last load may only read although it was to write: a sentence for the user about what
    /// the check of a doubtful volume found; empty otherwise.
    std::string refusalToWrite;
    /// What a user should know besides of the last load, in sentences: that a volume in doubt was
    /// found fit for writing, that a journal was left out, why there is none.
    std::vector<std::string> notices;

    /// The type name that statistics carry: the short name in the information dictionary.
    [[nodiscard]] static const std::string& typeName();

    /// Usable under its label (else "NTFS") when there is an NTFS boot sector; never an error.
    fskit::FSProbeResult probeResource(const fskit::FSResourceRef& resource) override;
    /// Mounts read-only when the options or the medium say so, or when the volume is hibernated,
    /// fast-started or write-protected, or marked dirty and found with data at risk (unless
    /// "nocheck" is among the options); else read-write. kENODEV when the resource is no block
    /// device, otherwise what the volume's open answers.
    ///
    /// Hosts load a device again without an unload. A volume that is active then stays in use: its
    /// own device answers it once more, whatever the options, and any other is refused with kEBUSY.
    /// One that is not active, or whose disk is gone, is closed first, so that the second load
    /// finds all that was written through the first.
    Outcome<std::shared_ptr<fskit::FSVolume>>
    loadResource(const fskit::FSResourceRef& resource,
                 const fskit::FSTaskOptions& options) override;
    /// Closes the volume, unless it was closed with its deactivation, and forgets it, whatever the
    /// result. An active volume whose device was loaded several times is synchronised, and stays
    /// until the last of as many unloads.
    Outcome<void> unloadResource(const fskit::FSResourceRef& resource,
                                 const fskit::FSTaskOptions& options) override;

    /// Quick and verifying checks of a loaded volume succeed without looking; kEINVAL for other
    /// arguments, kENXIO without a volume, kENOTSUP for a repair.
    Outcome<std::shared_ptr<fskit::NSProgress>>
    startCheck(const std::shared_ptr<fskit::FSTask>& task,
               const fskit::FSTaskOptions& options) override;
    /// Always kENOTSUP.
    Outcome<std::shared_ptr<fskit::NSProgress>>
    startFormat(const std::shared_ptr<fskit::FSTask>& task,
                const fskit::FSTaskOptions& options) override;

  private:
    const NameRules defaults_;

    /// Mounts the resource and keeps the volume; reports either outcome.
    std::shared_ptr<TavelinVolume> loaded(const std::shared_ptr<fskit::FSBlockDeviceResource>& disk,
                                          const fskit::FSTaskOptions& options);
    /// The active volume once more, when `disk` is its device; reports either outcome.
    std::shared_ptr<TavelinVolume> loadedAgain(const fskit::FSBlockDeviceResource& disk,
                                               const fskit::FSTaskOptions& options);
    /// Whether programs use the volume, and its disk is still there.
    [[nodiscard]] bool isInUse() const {
        return volume && volume->isActive() && openDevice() != nullptr;
    }
    /// The device of the volume while that is open; null without one, or when its disk is gone.
    [[nodiscard]] std::shared_ptr<ResourceDevice> openDevice() const;
    /// Closes what an earlier load left open. A failure is logged: the new load, of `disk`, shall
    /// go on, and finds on the device what could be written.
    void closeForgotten(const fskit::FSBlockDeviceResource& disk);

    /// How many loads of the device were not ended by an unload. Those of an open volume that
    /// another load has closed count on: their unloads are still to come.
    std::size_t loads_ = 0;
};

} // namespace tavelin
