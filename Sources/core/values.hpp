/// The plain records that cross between the volume and what is built on it. They are copyable
/// values without identity, filled once where they are made, and compare equal field by field;
/// any thread may hold its own copy. Inode numbers are NTFS file record numbers; sizes are bytes.
///
/// A record number alone does not identify an item: a freed record goes to the next new item. Its
/// sequence number changes with each owner. NTFSVolume's operations therefore take an item as a
/// reference, the record number with the sequence number in the upper 16 bits.
#pragma once

#include "platform/checked.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string_view>
#include <vector>

namespace tavelin {

/// What an item is. The raw values are the bridge's NTB_TYPE_ codes.
/// NTFS itself knows files and directories. The other kinds are files with a reparse point, or
/// system files with a marker in their data.
enum class NTFSItemType : std::uint32_t {
    file = 1,
    directory = 2,
    symlink = 3,
    fifo = 4, ///< this and the following as WSL and Interix keep them
    charDevice = 5,
    blockDevice = 6,
    socket = 7,
};

/// The type with this raw value, if there is one.
[[nodiscard]] std::optional<NTFSItemType> itemType(std::uint32_t rawValue) noexcept;

/// The type of an item that the bridge reports under this code. An item of an unknown kind is
/// shown as a regular file rather than refused.
[[nodiscard]] constexpr NTFSItemType itemTypeFromBridge(std::uint32_t code) noexcept {
    return code >= 1 && code <= 7 ? static_cast<NTFSItemType>(code) : NTFSItemType::file;
}

/// Where the bytes of a file are. The raw values are the bridge's NTB_DATA_ codes.
/// A file may have a size and no bytes here: deduplicated, in a cloud, or compressed by a means of
/// its own.
enum class NTFSDataState : std::uint32_t {
    here = 0,
    systemCompressed = 1, ///< read as usual; the first change decompresses the file
    elsewhere = 2,        ///< where only Windows, or nobody, finds them: refused
    encrypted = 3,        ///< refused
};

/// What is to become of a range of a file, as fallocate(2) has it.
enum class NTFSAllocation : std::uint8_t {
    reserve,          ///< clusters for all of it; the file grows to its end
    reserveBehindEnd, ///< the same, and the file keeps its size
    zero,             ///< zeroes and clusters for all of it; the file grows to its end
    zeroKeepingSize,  ///< the same, and the file keeps its size
    punchHole,        ///< zeroes without clusters; the file keeps its size
};

/// Lets the records below compare their times; found by lookup from within this namespace.
[[nodiscard]] inline bool operator==(const std::timespec& a, const std::timespec& b) noexcept {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

/// How an operation is told which item it is for, so that it answers kESTALE when the record has
/// another owner by now. A sequence number of 0 asks for no such check.
[[nodiscard]] constexpr std::uint64_t itemReference(std::uint64_t ino,
                                                    std::uint16_t sequence) noexcept {
    return ino | std::uint64_t{sequence} << 48;
}

/// The record number in such a reference.
[[nodiscard]] constexpr std::uint64_t recordNumber(std::uint64_t reference) noexcept {
    return reference & ((std::uint64_t{1} << 48) - 1);
}

/// Who owns an item and what its mode is, as far as the volume keeps it: in the way of WSL, beside
/// the owners of NTFS.
struct NTFSOwner {
    std::optional<std::uint32_t> user;
    std::optional<std::uint32_t> group;
    std::optional<std::uint32_t> mode; ///< the twelve permission bits

    bool operator==(const NTFSOwner&) const = default;
};

/// The attributes of one item. Times count from 1970-01-01 UTC, in steps of 100 ns on the volume.
struct NTFSAttributes {
    std::uint64_t ino = 0;
    std::uint16_t sequence = 0; ///< of the record, never 0 on a sound volume
    NTFSItemType type = NTFSItemType::file;
    /// Names of the file as NTFS counts them: a DOS name counts as one of its own. 2 for
    /// directories.
    std::uint32_t linkCount = 0;
    std::uint64_t size = 0; ///< logical size; of a link, the length of its target
    /// Smaller than the size for a file with holes or a compressed one.
    std::uint64_t allocSize = 0; ///< space taken on the volume
    bool hidden = false;         ///< the four Windows attributes
    bool readOnly = false;
    bool system = false;
    bool compressed = false;
    /// A mount has another root, so its target is shown relative to the link's directory.
    bool volumeLink = false; ///< a link whose target is a path from the volume's root
    /// What the item is beyond a file or directory, as Windows tags it.
    std::uint32_t reparseTag = 0; ///< 0: none; reparse_tags.hpp knows the others
    /// Whether the bytes can be had. Reading and writing a file whose bytes are elsewhere is
    /// refused.
    NTFSDataState dataState = NTFSDataState::here;
    std::uint64_t device = 0; ///< of a device: its major number << 32 | its minor number
    NTFSOwner owner;          ///< absent values unless the volume was told to read owners
    std::timespec accessTime{};
    std::timespec modifyTime{}; ///< last change of the data
    std::timespec changeTime{}; ///< last change of the file record
    std::timespec birthTime{};

    [[nodiscard]] std::uint64_t reference() const noexcept { return itemReference(ino, sequence); }
    bool operator==(const NTFSAttributes&) const = default;
};

/// What an operation that made, linked or removed a name left behind, read under the operation's
/// own lock, so that no other change lies in between. Where the directory could not be read after
/// the change had succeeded, its attributes are absent: the change is not taken back for that.
struct NTFSChange {
    NTFSAttributes item; ///< of one that lost its last name: as it was, with a link count of 0
    /// After the change, so its times are new.
    std::optional<NTFSAttributes> directory;
    std::uint64_t freeBytes = 0; ///< of the volume

    bool operator==(const NTFSChange&) const = default;
};

/// The same of a rename.
/// Both directories are answered even where they are the same one.
struct NTFSRename {
    NTFSAttributes item;
    std::optional<NTFSAttributes> source; ///< the two directories
    std::optional<NTFSAttributes> destination;
    /// What the new name stood for: with a link count of 0 when it has no other name.
    std::optional<NTFSAttributes> replaced;
    std::uint64_t freeBytes = 0;

    bool operator==(const NTFSRename&) const = default;
};

/// The same of a write.
struct NTFSWrite {
    std::size_t count = 0;              ///< bytes written
    std::optional<NTFSAttributes> item; ///< absent for a write of nothing, or when not asked for
    std::uint64_t freeBytes = 0;

    bool operator==(const NTFSWrite&) const = default;
};

/// One name of a directory listing, in UTF-8.
struct NTFSDirEntry {
    std::string_view name; ///< in the memory of the listing
    std::uint64_t ino = 0;
    std::uint16_t sequence = 0; ///< of the record, as the directory has it
    NTFSItemType type = NTFSItemType::file;

    [[nodiscard]] std::uint64_t reference() const noexcept { return itemReference(ino, sequence); }
    bool operator==(const NTFSDirEntry&) const = default;
};

/// A place between two names of a directory, for NTFSVolume::listSorted(): at first before all of
/// them. What is in it is the bridge's.
struct NTFSListPosition {
    std::uint16_t length = 0;
    std::array<std::uint8_t, 510> name{};
};

/// Names of one directory, in the order of the listing. Moved, not copied: the entries
/// refer to the names, which lie one behind the other so that a large directory takes two blocks of
/// memory and not one for each name.
class NTFSListing {
  public:
    NTFSListing() = default;
    NTFSListing(NTFSListing&&) = default;
    NTFSListing& operator=(NTFSListing&&) = default;

    /// Appends an entry of that name, which is copied. Its own `name` is set by finish().
    void append(std::string_view name, std::uint64_t ino, std::uint16_t sequence,
                NTFSItemType type);
    /// Makes the entries refer to their names; called once, after the last append().
    void finish() noexcept;
    /// Leaves out a name, if it is there; after finish().
    void erase(std::string_view name) noexcept;

    [[nodiscard]] std::size_t size() const noexcept { return entries_.size(); }
    [[nodiscard]] bool empty() const noexcept { return entries_.empty(); }
    /// What entries and names take. Room that was never used is not touched, and costs no memory.
    [[nodiscard]] std::size_t memoryBytes() const noexcept {
        return entries_.size() * sizeof(NTFSDirEntry) + names_.size();
    }
    [[nodiscard]] const NTFSDirEntry& operator[](std::size_t at) const { return entries_[at]; }
    [[nodiscard]] auto begin() const noexcept { return entries_.begin(); }
    [[nodiscard]] auto end() const noexcept { return entries_.end(); }

  private:
    std::vector<NTFSDirEntry> entries_;
    std::vector<char> names_;
};

/// Space and file counts of a volume.
struct NTFSStatFS {
    std::uint32_t clusterSize = 0; ///< bytes in a cluster
    std::uint64_t totalClusters = 0;
    std::uint64_t freeClusters = 0;
    std::uint64_t totalFiles = 0; ///< file records the volume has or could make room for
    std::uint64_t freeFiles = 0;

    /// In bytes. A product that does not fit stops the process: no volume is that large.
    [[nodiscard]] std::uint64_t totalBytes() const {
        return checkedMultiply<std::uint64_t>(clusterSize, totalClusters, "NTFSStatFS.totalBytes");
    }
    [[nodiscard]] std::uint64_t freeBytes() const {
        return checkedMultiply<std::uint64_t>(clusterSize, freeClusters, "NTFSStatFS.freeBytes");
    }

    bool operator==(const NTFSStatFS&) const = default;
};

/// What of a volume's free space its device is to be told of, in bytes.
struct NTFSTrimRange {
    std::uint64_t offset = 0;
    std::uint64_t length = UINT64_MAX; ///< may lead beyond the end of the volume
    std::uint64_t minimum = 0;         ///< shorter stretches of free space are left alone
};

/// Device and cache counters of one mounted volume since it was mounted.
struct NTFSIOStats {
    std::uint64_t deviceReads = 0; ///< read calls to the device
    std::uint64_t deviceWrites = 0;
    std::uint64_t readBytes = 0;
    std::uint64_t writeBytes = 0;
    /// 0 as long as every layer above keeps to whole blocks.
    std::uint64_t unalignedOps = 0; ///< device calls that needed a bounce buffer
    std::uint64_t cacheHits = 0;    ///< pages
    std::uint64_t cacheMisses = 0;
    std::uint64_t dirtyPages = 0; ///< pages waiting to be written

    bool operator==(const NTFSIOStats&) const = default;
};

} // namespace tavelin
