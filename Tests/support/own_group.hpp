// Gives the process an event log of its own, whatever the environment says.
#pragma once

#include "support/temp_directory.hpp"

#include <cstdlib>

namespace tavelin::test {

struct OwnGroup {
    OwnGroup() { ::setenv("TAVELIN_GROUP_CONTAINER", directory.path().c_str(), 1); }
    TempDirectory directory;
};
inline const OwnGroup ownGroup;

} // namespace tavelin::test
