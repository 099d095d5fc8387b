// The operations of operations.hpp as the system's FUSE driver, ntfs-3g, carries them out.
#pragma once

#include "lab/recording.hpp"

#include <optional>

namespace tavelin::test {

// Absent when the driver has nothing to compare: more than one operation, no finish, or an
// operation that it does not offer. Mounts, so it needs root, /dev/fuse and ntfs-3g.
std::optional<Recording> recordDriver(const Bytes& base, const Script& script);

} // namespace tavelin::test
