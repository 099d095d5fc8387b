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
    // The volume.
    bootSector,
    bootSectorCopy,
    mftMirror,
    systemFile,
    volumeInformation,
    volumeDirty,
    volumeFlags,
    upcaseTable,
    attributeDefinitions,
    logFile,
    badClusters,
    // File records.
    recordUnreadable,
    recordMagic,
    recordTorn,
    recordHeader,
    recordNumber,
    recordSequence,
    extensionOrphan,
    // Attributes.
    attributeMalformed,
    attributeOrder,
    attributeInstance,
    attributeTwice,
    attributeType,
    attributeMissing,
    attributeValue,
    attributeListMalformed,
    attributeListOrder,
    attributeListStale,
    attributeListMissing,
    // Run lists and clusters.
    runListMalformed,
    runOutside,
    runOrder,
    runHole,
    attributeSizes,
    allocatedSize,
    compressedSize,
    clusterUsedTwice,
    // Bitmaps.
    bitmapSize,
    clusterMarkedFree,
    clusterMarkedUsed,
    bitmapTail,
    recordMarkedFree,
    recordMarkedUsed,
    // Indexes.
    indexRoot,
    indexBlockUnreadable,
    indexBlock,
    indexBlockTorn,
    indexEntry,
    indexOrder,
    indexChild,
    indexBlockTwice,
    indexBlockMarkedFree,
    indexBlockMarkedUsed,
    // Names and links.
    fileName,
    linkCount,
    directoryFlag,
    nameMissing,
    nameParent,
    nameWithoutEntry,
    dosNameAlone,
    entryFreeRecord,
    entrySequence,
    entryWithoutName,
    entryParent,
    entryFlags,
    entrySizes,
    directoryLoop,
    // Security descriptors, reparse points, object ids, extended attributes.
    securityStream,
    securityCopy,
    securityDescriptor,
    securityIndex,
    securityId,
    reparseIndex,
    reparseNotIndexed,
    objectIdIndex,
    objectIdNotIndexed,
    extendedAttributes,
    // The content of files.
    dataUnreadable,
    compressedData,
    // The check itself.
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
