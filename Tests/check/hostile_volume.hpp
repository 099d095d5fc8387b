// Volumes damaged by arbitrary bytes, for the structural check to survive.
#pragma once

#include "check/check.hpp"

#include <cstdint>
#include <span>
#include <vector>

namespace tavelin::test {

// Changes a sound volume as the input says, checks it, and makes it sound again. The first byte
// chooses the volume and whether its files are read; then come rows of eight bytes, up to twelve:
// what kind of place, which one, where in it, and what is written there. Fixups are put right again
// but for one kind, so that damage gets past them.
check::Report checkHostile(std::span<const uint8_t> input);
// The same volume with the changes, for others to look at.
std::vector<uint8_t> hostileImage(std::span<const uint8_t> input);

} // namespace tavelin::test
