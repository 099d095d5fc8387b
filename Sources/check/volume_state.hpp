/// In which state other systems have left a volume, as its own structures say.
///
/// For what a person is told, and for no decision: mounts judge by mount_gate.hpp and by what the
/// library answers.
#pragma once

#include "core/block_device.hpp"

#include <cstdint>
#include <optional>

namespace tavelin::check {

/// The journal that Windows keeps in $LogFile.
enum class LogState {
    empty,      ///< blank: nothing is waiting
    clean,      ///< Windows has ended its work with the volume
    inUse,      ///< Windows has not: it was interrupted, or will go on
    resetByChk, ///< chkdsk has emptied it
    unknown,    ///< something else, or unreadable
};

/// As the volume's own structures say it.
struct VolumeState {
    /// Flags of $VOLUME_INFORMATION, in the numbers of Windows.
    static constexpr std::uint16_t kDirty = 0x0001;
    static constexpr std::uint16_t kResizeLog = 0x0002;
    static constexpr std::uint16_t kChkdskUnderway = 0x4000;
    static constexpr std::uint16_t kModifiedByChkdsk = 0x8000;

    std::uint16_t flags = 0;
    std::uint8_t majorVersion = 0; ///< of NTFS on the volume: 3.1 since Windows XP
    std::uint8_t minorVersion = 0;
    /// Reads as empty while a journal of ours is in the file, which leaves the file's start blank.
    LogState log = LogState::unknown;
    /// Windows holds changes of the volume in the memory image of a shutdown with fast startup.
    bool isFastStarted = false;
    std::uint64_t records = 0;      ///< that $MFT has
    std::uint64_t recordsInUse = 0; ///< of these, after $MFT's bitmap
};

/// Absent when the volume cannot be read. std::bad_alloc when memory runs out.
[[nodiscard]] std::optional<VolumeState> readVolumeState(BlockDevice& device);

} // namespace tavelin::check
