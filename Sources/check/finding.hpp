/// What the check of a volume finds, and what it tells of it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tavelin::check {

enum class Severity : std::uint8_t {
    cosmetic,   ///< nobody is misled who reads files
    wrong,      ///< something is lost, wasted, or shown wrongly
    dataAtRisk, ///< files cannot be read, or writing may destroy more
};

/// One class for each thing that can be wrong; info() has a row for each.
enum class FindingClass : std::uint8_t {
    // The volume as a whole: what it is found by, its system files, and the flags that systems
    // leave for each other.
    bootSector,
    /// Behind the last cluster; what partitioning tools restore the first from.
    bootSectorCopy,
    /// The first records and their copy differ, as a cut between two writes leaves them.
    mftMirror,
    /// $MFT, $Bitmap, $LogFile and the others that a volume cannot do without.
    systemFile,
    volumeInformation,
    /// No damage by itself: a driver was cut off while it wrote.
    volumeDirty,
    /// Windows has to finish something first, and drivers other than Windows do not write until
    /// then.
    volumeFlags,
    /// Directories are sorted by this table, so names sorted by another one are not found.
    upcaseTable,
    /// $AttrDef, the table of the types that attributes may have.
    attributeDefinitions,
    /// Neither blank nor a journal of Windows nor one of ours.
    logFile,
    /// Clusters in this list belong to no file.
    badClusters,
    // File records: whether each can be read and says of itself what it is.
    recordUnreadable,
    /// The record is marked used and does not begin with "FILE".
    recordMagic,
    /// Its fixups do not match: a cut fell into the write of this record.
    recordTorn,
    recordHeader,
    /// Windows XP and later write the number into each record; a wrong one hints at a misdirected
    /// write.
    recordNumber,
    /// References to the record cannot tell its owner from an earlier one.
    recordSequence,
    /// A record that continues another one, which does not name it.
    extensionOrphan,
    // Attributes: whether they lie inside their record, stand in order and agree with the file's
    // attribute list.
    attributeMalformed,
    attributeOrder,
    /// Attribute lists refer to attributes by this number.
    attributeInstance,
    attributeTwice,
    attributeType,
    /// $STANDARD_INFORMATION and $DATA, for example.
    attributeMissing,
    attributeValue,
    attributeListMalformed,
    attributeListOrder,
    /// The list names an attribute that is not where it says.
    attributeListStale,
    /// An attribute in an extension record that the list does not name.
    attributeListMissing,
    // Run lists and clusters: whether every cluster is on the volume and belongs to one file only.
    runListMalformed,
    /// Clusters beyond the volume's end. Reading fails, and writing must not be tried.
    runOutside,
    /// An extent is missing, or two overlap in the attribute.
    runOrder,
    runHole,
    /// Data beyond the allocated size cannot be read, and initialised data beyond the data size is
    /// none.
    attributeSizes,
    allocatedSize,
    /// Of attributes with holes, where it says how much space the file takes.
    compressedSize,
    /// Two files share a cluster: a change of one damages the other.
    clusterUsedTwice,
    // Bitmaps: $Bitmap for clusters and $MFT's for records, compared with what the files use.
    bitmapSize,
    /// In use by a file: the next allocation would overwrite that file.
    clusterMarkedFree,
    /// In use by no file: the space is lost until the bitmap is corrected.
    clusterMarkedUsed,
    /// Bits behind the last cluster have to be set, so that no driver allocates there.
    bitmapTail,
    /// As dangerous as a cluster that is marked free: the next new file would take the record.
    recordMarkedFree,
    recordMarkedUsed,
    // Indexes: the trees that directories are, block by block and in their order.
    indexRoot,
    indexBlockUnreadable,
    indexBlock,
    /// A cut fell into the write of this block.
    indexBlockTorn,
    /// Its key or its length cannot be right.
    indexEntry,
    /// Entries that are not sorted are not found by name, although a listing shows them.
    indexOrder,
    indexChild,
    /// Two ways lead to one block; a change through one of them damages the other.
    indexBlockTwice,
    /// The next split of the index would overwrite this block.
    indexBlockMarkedFree,
    indexBlockMarkedUsed,
    // Names and links: each name in a record has an entry in its directory, and each entry a
    // record.
    fileName,
    /// The file would go too early, or never, when its names are removed.
    linkCount,
    directoryFlag,
    nameMissing,
    nameParent,
    /// The file says that it is in a directory which does not list it.
    nameWithoutEntry,
    /// Windows writes long and short names in pairs.
    dosNameAlone,
    /// The entry leads to a record that no file has.
    entryFreeRecord,
    entrySequence,
    /// A listing shows the name, and opening it leads to a file that is called otherwise.
    entryWithoutName,
    entryParent,
    /// The copy of a file's flags in its directory.
    entryFlags,
    /// The copy of sizes in a directory. Drivers write it late, so listings may show old sizes.
    entrySizes,
    /// A directory below itself, which no path from the root reaches.
    directoryLoop,
    // Security descriptors, reparse points, object ids and extended attributes, with the indexes
    // that Windows finds them by.
    securityStream,
    /// $SDS keeps every descriptor twice, 256 KiB apart.
    securityCopy,
    securityDescriptor,
    /// The two indexes by which Windows finds a descriptor: by number and by hash.
    securityIndex,
    securityId,
    reparseIndex,
    /// Windows finds reparse points through this index; other drivers do not need it.
    reparseNotIndexed,
    /// An entry of an index that leads to the wrong file.
    objectIdIndex,
    objectIdNotIndexed,
    extendedAttributes,
    // The content of files, read only by a deep check.
    dataUnreadable,
    compressedData,
    // The check itself: so much is wrong that a part of the volume was left out.
    notExamined,
    count, ///< no class
};

/// One row of the table of classes: constant texts of the program.
struct ClassInfo {
    FindingClass kind;
    std::string_view name; ///< "cluster-used-twice": for programs, never changes
    Severity severity;
    std::string_view meaning; ///< one line for a person
    std::string_view chkdsk;  ///< what `chkdsk /f` would do
};

/// The row of a class; `count` has none.
[[nodiscard]] const ClassInfo& info(FindingClass kind) noexcept;
/// "data at risk".
[[nodiscard]] std::string_view text(Severity severity) noexcept;

/// One thing that is wrong: where, what should be there and what is. Texts are for people.
struct Finding {
    FindingClass kind = FindingClass::count;
    std::optional<std::uint64_t> record; ///< number of the file record
    std::string path;                    ///< from the root, "/a/b"; empty where there is none
    std::string expected;
    std::string found;
};

} // namespace tavelin::check
