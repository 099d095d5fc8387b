// Waiting for the end of a program that has a disk image open.
#pragma once

#include <filesystem>

namespace tavelin::test {

// Returns once nobody has the file open for writing. A driver goes on for a moment after its mount
// is gone, and what mounts the image next refuses it until then. Throws std::system_error.
void awaitNoWriter(const std::filesystem::path& image);

} // namespace tavelin::test
