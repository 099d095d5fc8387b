// Runs changes on a recording disk, cuts the power at every write, and judges what is left.
#pragma once

#include "crash/operations.hpp"
#include "crash/snapshot.hpp"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace tavelin::test {

enum class Finish {
    nothing,     // the power goes before anything was asked to be kept
    synchronise, // after each operation
    unmount,     // at the end
};

struct Script {
    std::vector<const Operation*> operations;
    Finish finish = Finish::nothing;

    std::string describe() const;
};

// What can be wrong with a volume after a cut.
enum class Fault {
    notMountable, // read-write
    unreadable,   // something on it cannot be listed, opened or read
    lost,         // a name that was promised is not there
    damaged,      // content that was promised, or that nothing touched, differs
    strange,      // a name that no moment of the script had
};

const char* faultName(Fault fault);

struct Verdict {
    std::uint64_t scripts = 0;
    std::uint64_t cutPoints = 0;
    std::uint64_t images = 0;
    std::uint64_t promises = 0; // files and folders whose state was promised and compared
    std::map<Fault, std::uint64_t> faults;
    std::vector<std::string> examples; // the first few, with what it takes to repeat them

    bool clean() const { return faults.empty(); }
    void add(const Verdict& other);
};

struct Cuts {
    bool torn = true;
    unsigned reorderings = 2; // random ones for each cut point
    std::uint64_t seed = 1;
};

// Every cut of one script. `base` is preparedVolume().
Verdict tryScript(const Bytes& base, const Script& script, const Cuts& cuts);

// All scripts of one operation and, when asked for, of all pairs.
std::vector<Script> allScripts(bool pairs);

} // namespace tavelin::test
