// How the cost of one entry and of one byte grows with the size of a folder and of a file.
#pragma once

#include "Benchmarks/mount/mounted_server.hpp"

#include <filesystem>
#include <string>

namespace tavelin::bench {

// Formats `image` anew for every size, runs the ladder on `server`, and returns Markdown tables:
// nanoseconds an entry (create, look up, list, remove), nanoseconds a KiB written and read, the
// largest size against the smallest, and the server's peak memory. `quick` shortens the ladder.
std::string measureScale(const Server& server, const std::filesystem::path& image,
                         const std::filesystem::path& folder, bool quick);

} // namespace tavelin::bench
