// A volume with something of everything, to be damaged.
#pragma once

#include "support/sample_volume.hpp"

#include <cstdint>
#include <string>
#include <vector>

namespace tavelin::test {

// The image. In the root: "file", "other" and "sparse" with clusters, "small" without, "streams"
// with the named streams "aa" and "bb", "many" with so many that it needs an attribute list,
// "outer" with "inner" in it, and "dir", of whose files numbered(0) to numbered(names - 1) the
// second half was removed again. A step that fails fails the test.
std::vector<uint8_t> filledImage(const VolumeGeometry& geometry, int names);

std::string numbered(int number);

} // namespace tavelin::test
