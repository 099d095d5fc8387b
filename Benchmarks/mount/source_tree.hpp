// A directory tree with the sizes of a source project, the same on every run.
#pragma once

#include <filesystem>

namespace tavelin::bench {

// Writes `files` text files, in directories of about 25, below `root`, which is created. The sizes
// are spread like source code's: a few hundred bytes to some tens of kilobytes.
void makeSourceTree(const std::filesystem::path& root, int files);

} // namespace tavelin::bench
