// Runs changes on a recording disk, cuts the power at every write, and examines what is left.
#pragma once

#include "crash/crash_report.hpp"
#include "crash/recording.hpp"

#include <cstdint>
#include <vector>

namespace tavelin::test {

struct Cuts {
    // `dropped` is tried at persistence points; before, it is a shorter prefix.
    std::vector<Cut> kinds{Cut::prefix, Cut::torn, Cut::tornPages, Cut::reordered, Cut::dropped};
    unsigned reorderings = 2;    // random ones for each cut point
    unsigned imagesPerCheck = 1; // of the images in order, one in so many is checked
    std::uint64_t seed = 1;
};

// Every cut of one script. `base` is preparedVolume().
CrashReport tryScript(const Bytes& base, const Script& script, const Cuts& cuts);
CrashReport tryRecording(const Bytes& base, const Script& script, const Recording& recording,
                         const Cuts& cuts);

// All scripts of one change and, when asked for, of all pairs.
std::vector<Script> allScripts(bool pairs);

} // namespace tavelin::test
