// Gives the process an event log of its own, whatever the environment says.
#pragma once

#include "support/temp_folder.hpp"

#include <cstdlib>

namespace tavelin::test {

struct OwnGroup {
    OwnGroup() { ::setenv("TAVELIN_GROUP_CONTAINER", folder.path().c_str(), 1); }
    TempFolder folder;
};
inline const OwnGroup ownGroup;

} // namespace tavelin::test
