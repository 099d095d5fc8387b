// Cuts the power at every write that a recording disk has seen, and examines what is left.
#pragma once

#include "lab/crash_report.hpp"
#include "lab/recording.hpp"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace tavelin::test {

struct Cuts {
    // `dropped` is tried at persistence points; before, it is a shorter prefix.
    std::vector<Cut> kinds{Cut::prefix, Cut::torn, Cut::tornPages, Cut::reordered, Cut::dropped};
    unsigned reorderings = 2;    // random ones for each cut point
    unsigned imagesPerCheck = 1; // of the images in order, one in so many is checked
    std::uint64_t seed = 1;
};

struct PowerCut {
    std::size_t end; // events of the recording that it comes after
    Cut cut;
    Bytes image;           // what it leaves
    std::size_t persisted; // index of the recording's last state that must be there
};

// Every cut of a recording that may leave something new; answers after how many events there were
// any. `base` is the disk before the recording.
std::uint64_t forEachCut(const Bytes& base, const Recording& recording, const Cuts& cuts,
                         const std::function<void(PowerCut&)>& work);

// The next mount of an image, to its end.
struct NextMount {
    explicit NextMount(Bytes image);

    std::string refusal;      // why it cannot be written to; empty when it can
    bool isCompleted = false; // the mount had to write to it
    Snapshot found;
    Bytes after;                   // the image, unmounted again
    std::vector<DiskEvent> events; // that led from one to the other
};

// Every cut of one script: the next mount has to find the volume as it was at some moment since the
// persistence point, and leave it sound. `base` is preparedVolume().
CrashReport tryScript(const Bytes& base, const Script& script, const Cuts& cuts);
CrashReport tryRecording(const Bytes& base, const Script& script, const Recording& recording,
                         const Cuts& cuts);

// After every cut in order of one script whose flush the next mount completes: that mount is cut
// off at every write as well, in order, torn and reordered. The one after it has to come to the
// same bytes. The report counts these second cuts.
CrashReport tryRecoveries(const Bytes& base, const Script& script, const Cuts& cuts);

// All scripts of one change and, when asked for, of all pairs.
std::vector<Script> allScripts(bool pairs);

} // namespace tavelin::test
