// What is wrong with a volume after a power cut, in more words than whether it is as promised: a
// driver without a journal leaves more behind than one of two states.
#pragma once

#include "lab/power_cut.hpp"

#include <map>
#include <string>

namespace tavelin::test {

// The first example of each kind. `script` is of operations.
std::map<std::string, std::string> findings(const Script& script, const Recording& recording,
                                            const PowerCut& power, const Snapshot& found);

} // namespace tavelin::test
