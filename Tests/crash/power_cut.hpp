// Runs changes on a recording disk, cuts the power at every write, and judges what is left.
#pragma once

#include "crash/recording.hpp"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace tavelin::test {

// What can be wrong with a volume after a cut.
enum class Fault {
    notMountable, // read-write
    noFolder,     // a folder in which names were being changed cannot be listed
    halfFolder,   // a folder in which names were being changed lacks others, or cannot find them
    noFile,       // a name that was being changed is listed and cannot be opened
    exchanged,    // a name that was being changed leads to another file that was
    moved,        // a file that was being moved has neither its old nor its new name
    unreadable,   // something else cannot be listed, opened or read
    lost,         // a name that was promised is not there
    damaged,      // content that was promised, or that nothing touched, differs
    strange,      // a name that no moment of the script had
};

inline constexpr Fault kAllFaults[] = {
    Fault::notMountable, Fault::noFolder,   Fault::halfFolder, Fault::noFile,  Fault::exchanged,
    Fault::moved,        Fault::unreadable, Fault::lost,       Fault::damaged, Fault::strange};
const char* faultName(Fault fault);
const char* cutName(Cut cut);

using FaultCounts = std::map<Fault, std::uint64_t>;

struct Verdict {
    std::uint64_t scripts = 0;
    std::uint64_t cutPoints = 0;
    std::uint64_t promises = 0; // files and folders whose state was promised and compared
    std::map<Cut, std::uint64_t> images;
    std::map<Cut, std::uint64_t> completed; // images that the mount had to write to
    std::map<Cut, FaultCounts> faults;      // images by what is wrong; one may count several times
    std::vector<std::string> examples;      // the first few, with what it takes to repeat them

    std::uint64_t count(Fault fault) const;
    void add(const Verdict& other);
};

struct Cuts {
    std::vector<Cut> kinds{Cut::prefix, Cut::torn, Cut::tornPages, Cut::reordered};
    unsigned reorderings = 2; // random ones for each cut point
    std::uint64_t seed = 1;
};

// Every cut of one script. `base` is preparedVolume().
Verdict tryScript(const Bytes& base, const Script& script, const Cuts& cuts);
Verdict tryRecording(const Bytes& base, const Script& script, const Recording& recording,
                     const Cuts& cuts);

// All scripts of one operation and, when asked for, of all pairs.
std::vector<Script> allScripts(bool pairs);

} // namespace tavelin::test
