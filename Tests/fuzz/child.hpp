// Runs one input in a process of its own, and says whose fault it was when that ended badly.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace tavelin::test {

struct ChildResult {
    enum class End {
        well,
        inLibrary, // crashed within libntfs-3g
        inOurs,    // anywhere else, or without an end: any frame of the stack may be the loop
    };
    End end = End::well;
    std::string where;  // the innermost function of libntfs-3g, or the innermost frame of ours
    std::string report; // what the child printed
};

// Judges by the first stack in a report.
ChildResult culpritOf(std::string report);

ChildResult runInChild(std::span<const std::uint8_t> input);

} // namespace tavelin::test
