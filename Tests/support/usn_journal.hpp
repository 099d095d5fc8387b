// Volumes with the change journal of Windows, which no way in can make. Link usn_journal.
#pragma once

#include "NTFSBridge/ntb.h"

#include <cstdint>
#include <string>

namespace tavelin::test {

// The content of its stream $Max.
struct USNMax {
    uint64_t maximumSize, allocationDelta, id, lowestUSN;
};

// Makes $Extend\$UsnJrnl as Windows does, with these records in $J; answers its record's number.
uint64_t makeUSNJournal(ntb_vol* volume, const USNMax& max, const std::string& records);
USNMax usnMaxOf(ntb_vol* volume, uint64_t journal);

} // namespace tavelin::test
