// What power cuts did to a volume, in numbers.
#pragma once

#include "crash/recording_resource.hpp"

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace tavelin::test {

// What can be wrong with a volume after a cut.
enum class Fault {
    notMountable,  // read-write
    noDirectory,   // a directory in which names were being changed cannot be listed
    halfDirectory, // a directory whose names were being changed lacks others, or cannot find them
    noFile,        // a name that was being changed is listed and cannot be opened
    exchanged,     // a name that was being changed leads to another file that was
    moved,         // a file that was being moved has neither its old nor its new name
    unreadable,    // something else cannot be listed, opened or read
    lost,          // a name that was persisted is not there
    damaged,       // content that was persisted, or that nothing touched, differs
    unexpected,    // a name that no moment of the script had
    notAtomic,     // the volume as a whole is as at no moment since the persistence point
    inconsistent,  // an independent check of the volume, unmounted again, complains
};

extern const std::map<Fault, const char*> kFaultNames;
extern const std::map<Cut, const char*> kCutNames;

using CutCounts = std::map<Cut, std::uint64_t>;

struct CrashReport {
    static constexpr std::size_t kExamplesMax = 12;

    std::uint64_t scripts = 0;
    std::uint64_t cutPoints = 0;
    std::uint64_t persisted = 0; // files and directories whose persisted state was compared
    CutCounts images;
    CutCounts completed;               // images that the mount had to write to
    std::map<Fault, CutCounts> faults; // images by what is wrong; one may count several times
    std::uint64_t checked = 0;         // images in order that were checked independently
    std::map<std::string, std::uint64_t> complaints; // what the check said of how many of them
    std::vector<std::string> examples; // the first few, with what it takes to repeat them

    bool isSound() const { return faults.empty(); } // nothing is wrong with any image
    std::string describe() const;                   // what is wrong, with the examples
    void add(const CrashReport& other);
};

} // namespace tavelin::test
