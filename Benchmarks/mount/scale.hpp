// How the cost of one entry and of one byte grows with the size of a directory and of a file.
#pragma once

#include "Benchmarks/mount/mounted_server.hpp"

#include <filesystem>
#include <string>

namespace tavelin::bench {

struct Scale {
    std::string tables; // Markdown, each row with whether it keeps within its aim
    bool asAimed = true;
};

// Formats `image` anew for every size and runs the ladder on `server`: nanoseconds an entry
// (create, look up, list, remove) and a KiB written and read, and the server's peak memory. The
// aims: at the largest size at most twice the cost at the smallest; 64 MiB and 200 bytes an entry.
// `quick` shortens the ladder.
Scale measureScale(const Server& server, const std::filesystem::path& image,
                   const std::filesystem::path& directory, bool quick);

// The same for one directory with so many entries, against aims of its own: 60 microseconds for
// each that is made, 30 looked up, 1 listed; and the same memory.
Scale measureEntries(const Server& server, const std::filesystem::path& image,
                     const std::filesystem::path& directory, int count);

} // namespace tavelin::bench
