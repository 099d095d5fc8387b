// Every request a volume answers, once each, on the volume that preparedVolume() makes.
#pragma once

#include "lab/workload.hpp"

#include <vector>

namespace tavelin::test {

// All changes of allChanges(), changes too large for the page cache, and requests that only
// read. Those that only read throw std::runtime_error when they answer something wrong.
const std::vector<Workload>& allRequests();

} // namespace tavelin::test
