// What a power cut leaves of a disk.
#pragma once

#include "lab/disk.hpp"

#include <random>

namespace tavelin::test {

// What the medium may hold after the power went during events[0, end).
//   prefix    every write up to `end`, in order
//   torn      the same, of the last write only some of its sectors of 512 bytes
//   tornPages the same by 4096 bytes, which disks of today write whole
//   reordered up to the last flush everything, after it a random half of the writes, shuffled
//   dropped   up to the last flush everything, after it nothing
enum class Cut { prefix, torn, tornPages, reordered, dropped };

// `base` is the medium before the first event; `random` decides about sectors and subsets.
Bytes afterCut(const Bytes& base, const std::vector<DiskEvent>& events, std::size_t end, Cut cut,
               std::mt19937_64& random);

} // namespace tavelin::test
