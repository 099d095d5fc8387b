// What power cuts did to a volume, in numbers.
#pragma once

#include "lab/cut.hpp"

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace tavelin::test {

// What can be wrong with a volume after a cut.
inline constexpr const char* kNotMountable = "not mountable"; // read-write
// The volume as a whole, with all names, contents, streams, times of files and the label, but for
// what hasNewerBytes() allows.
inline constexpr const char* kNotAtomic = "as at no moment since the persistence point";
inline constexpr const char* kInconsistent = "a check of it complains";
// After a recovery that was cut off itself.
inline constexpr const char* kOtherwise = "not the bytes of a whole recovery";

using CutCounts = std::map<Cut, std::uint64_t>;

struct CrashReport {
    static constexpr std::size_t kExamplesMax = 12;

    std::uint64_t scripts = 0;
    std::uint64_t cutPoints = 0;
    std::uint64_t checked = 0; // images in order that were checked independently
    CutCounts images;
    CutCounts completed; // images that the mount had to write to
    CutCounts newer;     // images as at one moment but for newer bytes of a file
    // Images by what is wrong; one may count several times.
    std::map<std::string, CutCounts> faults{
        {kNotMountable, {}}, {kNotAtomic, {}}, {kInconsistent, {}}};
    std::vector<std::string> examples; // the first few, with what it takes to repeat them

    bool isSound() const { return examples.empty(); } // nothing is wrong with any image
    std::string describe() const;                     // the examples
    std::string table() const;
    void add(const std::string& fault, Cut cut, const std::string& script, std::size_t end,
             const std::string& what);
    void add(const CrashReport& other);
};

} // namespace tavelin::test
