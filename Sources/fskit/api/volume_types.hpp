/// What a volume says of itself, and the option sets of its requests.
#pragma once

#include <cstdint>
#include <string>

namespace fskit {

/// Whether names that differ in case only are different names.
enum class FSVolumeCaseFormat : std::int64_t {
    sensitive = 0,
    insensitive = 1,
    insensitiveCasePreserving = 2,
};

/// FSKit's list, each off unless a volume says otherwise. Hosts show programs what is on.
struct FSVolumeSupportedCapabilities {
    /// An item's number is the same after the next mount.
    bool supportsPersistentObjectIDs = false;
    bool supportsSymbolicLinks = false;
    /// Programs may give a file a second name.
    bool supportsHardLinks = false;
    /// Ranges that were never written take no space.
    bool supportsSparseFiles = false;
    /// volumeStatistics() answers from memory.
    bool supportsFastStatFS = false;
    /// Files may have 2 TB and more.
    bool supports2TBFiles = false;
    /// kHiddenFlag can be set and is kept.
    bool supportsHiddenFiles = false;
    /// Item numbers may need more than 32 bits.
    bool supports64BitObjectIDs = false;
    /// Flags that forbid changes are refused.
    bool doesNotSupportImmutableFiles = false;
    /// A mode that is set is accepted and not kept.
    bool doesNotSupportSettingFilePermissions = false;
    FSVolumeCaseFormat caseFormat = FSVolumeCaseFormat::sensitive;
};

/// Sizes are bytes, counts are blocks of blockSize or files.
struct FSStatFSResult {
    /// The type name is the one that statfs(2) shows.
    explicit FSStatFSResult(std::string typeName) : fileSystemTypeName(std::move(typeName)) {}

    std::string fileSystemTypeName;
    /// The unit of the counts below: a cluster of the volume.
    std::int64_t blockSize = 4096;
    /// The length of transfers that the volume likes best, in bytes.
    std::int64_t ioSize = 0;
    std::uint64_t totalBlocks = 0;
    /// Free for ordinary users. NTFS reserves nothing, so it is the same as freeBlocks.
    std::uint64_t availableBlocks = 0;
    std::uint64_t freeBlocks = 0;
    std::uint64_t usedBlocks = 0;
    std::uint64_t totalBytes = 0;
    std::uint64_t availableBytes = 0;
    std::uint64_t freeBytes = 0;
    std::uint64_t usedBytes = 0;
    /// File records that there are or could be, not only those in use.
    std::uint64_t totalFiles = 0;
    std::uint64_t freeFiles = 0;
};

/// Raw values follow <sys/mount.h>: MNT_WAIT, MNT_NOWAIT, MNT_DWAIT.
enum class FSSyncFlags : std::int64_t { none = 0, wait = 1, noWait = 2, dWait = 4 };

/// What a volume asks of its mount.
using FSMountOptions = std::uint64_t;
/// The mount refuses changes before they reach the volume.
inline constexpr FSMountOptions FSMountOptionsReadOnly = 1;

using FSDeactivateOptions = std::int64_t;
/// Whether the volume goes whatever is still open on it.
inline constexpr FSDeactivateOptions FSDeactivateOptionsForce = 1;

/// How space is reserved for a file.
using FSPreallocateFlags = std::uint64_t;
/// In one piece or not at all.
inline constexpr FSPreallocateFlags FSPreallocateFlagsContiguous = 0x2;
/// All of it or none.
inline constexpr FSPreallocateFlags FSPreallocateFlagsAll = 0x4;
/// The space stays when the file is closed.
inline constexpr FSPreallocateFlags FSPreallocateFlagsPersist = 0x8;
/// Behind the space that the file has; the offset of the request says nothing then.
inline constexpr FSPreallocateFlags FSPreallocateFlagsFromEOF = 0x10;

/// What is looked for in a file. The end of the file counts as a hole.
enum class FSSeekRegion : std::uint64_t { hole = 1, data = 2 };

/// The modes an item is open in; a close carries those that remain.
using FSVolumeOpenModes = std::uint64_t;
inline constexpr FSVolumeOpenModes FSVolumeOpenModesRead = 1;
inline constexpr FSVolumeOpenModes FSVolumeOpenModesWrite = 2;

/// A set of kinds of items.
using FSItemDeactivationOptions = std::uint64_t;
/// Those that have lost their name.
inline constexpr FSItemDeactivationOptions FSItemDeactivationForRemovedItems = 0x1;
/// Those that space was reserved for.
inline constexpr FSItemDeactivationOptions FSItemDeactivationForPreallocatedItems = 0x2;

/// Any number may arrive; those without a name count as alwaysSet.
enum class FSSetXattrPolicy : std::uint64_t {
    alwaysSet = 0,
    mustCreate = 1,
    mustReplace = 2,
    remove = 3, ///< FSKit's "delete"
};

} // namespace fskit
