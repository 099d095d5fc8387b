/// Files that Windows compressed as a whole (`compact /exe`, CompactOS): their bytes are in the
/// stream WofCompressedData, and a reparse point says so.
#pragma once

#include "check/private/volume.hpp"

namespace tavelin::check {

/// Decompresses the file once and reports where that fails. False when the file is not of this
/// kind: its streams are then to be read as they are. Throws Stopped, like every pass.
[[nodiscard]] bool readSystemCompressed(Volume& volume, const File& file);

} // namespace tavelin::check
