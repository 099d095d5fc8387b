// Every request a volume answers, once each, on the volume that preparedVolume() makes.
#pragma once

#include "crash/operations.hpp"
#include "crash/snapshot.hpp"

#include <optional>
#include <string>
#include <vector>

namespace tavelin::test {

// All changes of allChanges(), changes too large for the page cache, and requests that only
// read. Those that only read throw std::runtime_error when they answer something wrong.
const std::vector<Workload>& allRequests();

// What of `wanted` is not so in `found`, the paths that the request changes only when asked for.
std::optional<std::string> difference(const Snapshot& wanted, const Snapshot& found,
                                      const Workload& request, bool touchedToo);

} // namespace tavelin::test
