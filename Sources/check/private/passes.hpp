/// The passes of a check, in the order in which they run.
#pragma once

#include "check/private/volume.hpp"

namespace tavelin::check {

/// Every record: its header, attributes, run lists. Fills the volume's tables in.
void checkRecords(Volume& volume);
/// What one base record has to have, and what its attributes' values have to be.
void checkFile(Volume& volume, const File& file, RecordState& state);
/// What index entries have to have of a file's unnamed data: the allocated size, and both as one.
[[nodiscard]] std::uint64_t allocatedBytes(const Attribute& data);
[[nodiscard]] std::uint32_t sizesHash(std::uint64_t allocated, std::uint64_t size);
/// The run lists and sizes of a file's attributes; marks their clusters.
void checkAllocation(Volume& volume, const File& file);
/// $Boot, $MFTMirr, $Volume, $AttrDef, $UpCase, $LogFile, $BadClus.
void checkSystemFiles(Volume& volume);
/// $UpCase alone, which directories are compared with. Always leaves a table.
void loadUpcase(Volume& volume);
/// The path of an index entry.
[[nodiscard]] std::string entryPath(Volume& volume, std::uint64_t directory, const FileName& name);
/// The index of every directory, against the records that it leads to.
void checkDirectories(Volume& volume);
/// Where names and index entries disagree: which ones do.
void resolveNames(Volume& volume);
/// Whether every directory is below the root.
void checkReachability(Volume& volume);
/// $Bitmap and the bitmap of $MFT.
void checkBitmaps(Volume& volume);
/// Which files the clusters belong to that are used twice, or used and free.
void resolveClusters(Volume& volume);
/// $Secure.
void checkSecurity(Volume& volume);
/// The indexes in $Extend.
void checkViewIndexes(Volume& volume);
/// The content of every file.
void readAllData(Volume& volume);

} // namespace tavelin::check
