// A volume as those find it who know nothing of Tavelin's journal.
#pragma once

#include "NTFSBridge/ntb.h"
#include "support/bytes.hpp"

#include <span>
#include <string>

namespace tavelin::test {

// Where $LogFile is, in bytes; these volumes have it in one piece.
ntb_extent logOf(std::span<const std::byte> image);
// Whether all of it is 0xff, as a formatter leaves it.
bool isLogBlank(std::span<const std::byte> image);

// The volume's dirty flag.
bool isMarked(std::span<const std::byte> image);
void setMark(Bytes& image, bool isDirty);

// What the structural check finds where no journal is there to complete a flush.
std::string damageWithoutJournal(std::span<const std::byte> image);
// The same of a volume that is not marked dirty: nobody would look for it. Copies of $Volume that
// differ are left out, as everybody mends them: one of them may have the flag before the other.
std::string unmarkedDamage(std::span<const std::byte> image);

} // namespace tavelin::test
