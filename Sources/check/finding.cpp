#include "check/finding.hpp"

#include "platform/assert.hpp"

#include <array>

namespace tavelin::check {
namespace {

using enum FindingClass;
using enum Severity;

constexpr std::string_view kDeletesRecord = "deletes the record; the file's content is lost";
constexpr std::string_view kDeletesAttribute = "deletes the attribute";
constexpr std::string_view kTruncates = "truncates the attribute to what it can read";
constexpr std::string_view kRebuildsIndex = "rebuilds the index from the file records";
constexpr std::string_view kDeletesEntry = "deletes the index entry";
constexpr std::string_view kCorrects = "corrects the value";
constexpr std::string_view kCorrectsBitmap = "corrects the bitmap";
constexpr std::string_view kRecoversOrphan = "puts the name back, or the file into found.000";
constexpr std::string_view kNothing = "nothing";

constexpr std::array<ClassInfo, static_cast<std::size_t>(count)> kTable{{
    {bootSector, "boot-sector", dataAtRisk, "the boot sector is damaged",
     "copies the backup boot sector over it"},
    {bootSectorCopy, "boot-sector-copy", wrong, "the backup boot sector differs", "writes it anew"},
    {mftMirror, "mft-mirror", wrong, "$MFTMirr differs from $MFT", "copies $MFT over it"},
    {systemFile, "system-file", dataAtRisk, "a system file is missing or not as it has to be",
     "makes it anew where it can, or gives up"},
    {volumeInformation, "volume-information", wrong, "$Volume has not what it must have",
     kCorrects},
    {volumeDirty, "volume-dirty", wrong, "the volume is marked dirty",
     "checks the volume when Windows starts, then clears the mark"},
    {volumeFlags, "volume-flags", wrong, "the volume asks for work by Windows", "does that work"},
    {upcaseTable, "upcase-table", wrong, "the table of upper-case letters is damaged",
     "writes it anew"},
    {attributeDefinitions, "attribute-definitions", wrong, "$AttrDef is damaged", "writes it anew"},
    {logFile, "log-file", wrong, "$LogFile holds what is no journal", "empties it"},
    {badClusters, "bad-clusters", wrong, "the list of bad clusters is damaged",
     "makes the list anew"},
    {recordUnreadable, "record-unreadable", dataAtRisk, "the device cannot read a file record",
     kDeletesRecord},
    {recordMagic, "record-magic", dataAtRisk, "a file record in use is none", kDeletesRecord},
    {recordTorn, "record-torn", dataAtRisk, "a file record was written in part", kDeletesRecord},
    {recordHeader, "record-header", dataAtRisk, "a file record's header is damaged",
     kDeletesRecord},
    {recordNumber, "record-number", wrong, "a file record says that it is another one", kCorrects},
    {recordSequence, "record-sequence", wrong, "a file record has no sequence number", kCorrects},
    {extensionOrphan, "extension-orphan", wrong, "an extension record belongs to no file",
     "frees the record; the attributes in it are lost"},
    {attributeMalformed, "attribute-malformed", dataAtRisk,
     "an attribute does not fit into its record", kDeletesAttribute},
    {attributeOrder, "attribute-order", wrong, "attributes are not in their order",
     "sorts or deletes them"},
    {attributeInstance, "attribute-instance", wrong, "two attributes have the same instance number",
     "numbers them anew"},
    {attributeTwice, "attribute-twice", dataAtRisk, "a file has an attribute twice",
     "deletes the second one"},
    {attributeType, "attribute-type", wrong, "an attribute has a type that does not exist",
     kDeletesAttribute},
    {attributeMissing, "attribute-missing", wrong, "a file has not an attribute that it must have",
     "adds an empty one, or deletes the record"},
    {attributeValue, "attribute-value", wrong, "an attribute's value is malformed",
     kDeletesAttribute},
    {attributeListMalformed, "attribute-list-malformed", dataAtRisk,
     "an attribute list is malformed", "truncates the list; what followed is lost"},
    {attributeListOrder, "attribute-list-order", wrong, "an attribute list is not in its order",
     "sorts the list"},
    {attributeListStale, "attribute-list-stale", dataAtRisk,
     "an attribute list points to an attribute that is not there", "deletes the entry"},
    {attributeListMissing, "attribute-list-missing", dataAtRisk,
     "an attribute is not in the file's attribute list", kDeletesAttribute},
    {runListMalformed, "run-list-malformed", dataAtRisk, "a run list cannot be decoded",
     kTruncates},
    {runOutside, "run-outside", dataAtRisk, "a run list points outside the volume", kTruncates},
    {runOrder, "run-order", dataAtRisk, "the extents of an attribute do not follow each other",
     kTruncates},
    {runHole, "run-hole", wrong, "an attribute that is not sparse has a hole", kTruncates},
    {attributeSizes, "attribute-sizes", wrong, "initialised <= data <= allocated size is not so",
     kCorrects},
    {allocatedSize, "allocated-size", wrong, "the allocated size is not that of the clusters",
     kCorrects},
    {compressedSize, "compressed-size", wrong, "the compressed size is not that of the clusters",
     kCorrects},
    {clusterUsedTwice, "cluster-used-twice", dataAtRisk, "two attributes use the same clusters",
     "copies the clusters for one of them; the content of one file is wrong"},
    {bitmapSize, "bitmap-size", dataAtRisk, "a bitmap is too short or too long", kCorrectsBitmap},
    {clusterMarkedFree, "cluster-marked-free", dataAtRisk,
     "clusters of a file are marked free: the next write may take them", kCorrectsBitmap},
    {clusterMarkedUsed, "cluster-marked-used", wrong, "clusters of no file are marked used",
     kCorrectsBitmap},
    {bitmapTail, "bitmap-tail", cosmetic, "clusters behind the volume's end are marked free",
     kCorrectsBitmap},
    {recordMarkedFree, "record-marked-free", dataAtRisk,
     "a file record in use is marked free: the next new file may take it", kCorrectsBitmap},
    {recordMarkedUsed, "record-marked-used", wrong, "a free file record is marked used",
     kCorrectsBitmap},
    {indexRoot, "index-root", dataAtRisk, "the root of an index is malformed", kRebuildsIndex},
    {indexBlockUnreadable, "index-block-unreadable", dataAtRisk,
     "the device cannot read an index block", kRebuildsIndex},
    {indexBlock, "index-block", dataAtRisk, "an index block is malformed", kRebuildsIndex},
    {indexBlockTorn, "index-block-torn", dataAtRisk, "an index block was written in part",
     kRebuildsIndex},
    {indexEntry, "index-entry", dataAtRisk, "an index entry is malformed", kRebuildsIndex},
    {indexOrder, "index-order", wrong, "index entries are not in their order: names are not found",
     kRebuildsIndex},
    {indexChild, "index-child", dataAtRisk, "an index points to a block that is not there",
     kRebuildsIndex},
    {indexBlockTwice, "index-block-twice", dataAtRisk, "an index leads to the same block twice",
     kRebuildsIndex},
    {indexBlockMarkedFree, "index-block-marked-free", dataAtRisk,
     "an index block in use is marked free: the next new name may take it", kRebuildsIndex},
    {indexBlockMarkedUsed, "index-block-marked-used", wrong,
     "an index block that nothing leads to is marked used", kRebuildsIndex},
    {fileName, "file-name", wrong, "a file name is malformed", kDeletesAttribute},
    {linkCount, "link-count", wrong, "the link count is not the number of names", kCorrects},
    {directoryFlag, "directory-flag", wrong, "the directory flag is not as the attributes say",
     kCorrects},
    {nameMissing, "name-missing", wrong, "a file has no name", kRecoversOrphan},
    {nameParent, "name-parent", wrong, "a file's name is in a directory that does not exist",
     kRecoversOrphan},
    {nameWithoutEntry, "name-without-entry", wrong, "a file is not in the index of its directory",
     kRecoversOrphan},
    {dosNameAlone, "dos-name-alone", cosmetic, "a short name has no long one",
     "makes the name serve as both"},
    {entryFreeRecord, "entry-free-record", wrong, "an index entry leads to a free file record",
     kDeletesEntry},
    {entrySequence, "entry-sequence", wrong, "an index entry leads to the record's former file",
     kDeletesEntry},
    {entryWithoutName, "entry-without-name", wrong,
     "an index entry leads to a file that has not this name", kDeletesEntry},
    {entryParent, "entry-parent", wrong, "an index entry names another directory", kDeletesEntry},
    {entryFlags, "entry-flags", wrong, "the flags in an index entry are not the file's", kCorrects},
    {entrySizes, "entry-sizes", cosmetic, "the sizes in an index entry are not the file's",
     kCorrects},
    {directoryLoop, "directory-loop", dataAtRisk, "a directory is not below the root",
     kRecoversOrphan},
    {securityStream, "security-stream", wrong, "an entry of $SDS is malformed",
     "deletes the entry; its files get a default descriptor"},
    {securityCopy, "security-copy", wrong, "the two copies in $SDS differ",
     "copies the sound one over the other"},
    {securityDescriptor, "security-descriptor", wrong, "a security descriptor is malformed",
     "replaces it by a default"},
    {securityIndex, "security-index", wrong, "$SII or $SDH do not agree with $SDS", kRebuildsIndex},
    {securityId, "security-id", wrong, "a file has a security id that $Secure does not know",
     "gives it a default descriptor"},
    {reparseIndex, "reparse-index", wrong, "$Reparse names a file that has no such reparse point",
     kDeletesEntry},
    {reparseNotIndexed, "reparse-not-indexed", wrong, "a reparse point is not in $Reparse",
     "adds it to the index"},
    {objectIdIndex, "object-id-index", wrong, "$ObjId names a file that has not this id",
     kDeletesEntry},
    {objectIdNotIndexed, "object-id-not-indexed", wrong, "an object id is not in $ObjId",
     "adds it to the index"},
    {extendedAttributes, "extended-attributes", wrong, "extended attributes are malformed",
     "deletes the extended attributes"},
    {dataUnreadable, "data-unreadable", dataAtRisk, "the device cannot read a part of a file",
     "with /r, replaces the clusters; what was in them is lost"},
    {compressedData, "compressed-data", dataAtRisk, "compressed data cannot be decompressed",
     kNothing},
    {notExamined, "not-examined", wrong, "so much is wrong that a part was not examined", kNothing},
}};

constexpr bool isInOrder() {
    for (std::size_t i = 0; i < kTable.size(); ++i) {
        if (kTable[i].kind != static_cast<FindingClass>(i)) {
            return false;
        }
    }
    return true;
}
static_assert(isInOrder());

} // namespace

const ClassInfo& info(FindingClass kind) noexcept {
    TAVELIN_ASSERT(kind < count);
    return kTable[static_cast<std::size_t>(kind)];
}

std::string_view text(Severity severity) noexcept {
    switch (severity) {
    case cosmetic:
        return "cosmetic";
    case wrong:
        return "wrong";
    case dataAtRisk:
        return "data at risk";
    }
    return "";
}

} // namespace tavelin::check
