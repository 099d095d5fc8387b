// What another system does with a volume between a power cut and our next mount, and what that
// mount must then not lose.
#pragma once

#include "lab/recording.hpp"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace tavelin::test {

enum class Neighbour {
    nothing,
    driver,           // mounts for writing over libntfs-3g, and makes files
    driverWithoutLog, // the same, but what it wrote to $LogFile never reached the medium
    journaledPage,    // a byte changes where a record waits to go
    otherPage,        // a byte changes elsewhere, in a file's content
    restartPage,      // Windows has begun its own log
    movedLog,         // $LogFile begins elsewhere and is shorter
    truncated,        // the last eighth of the volume is gone
};

extern const std::map<Neighbour, const char*> kNeighbourNames;

struct NeighbourCounts {
    std::uint64_t images = 0;
    std::uint64_t replayed = 0;    // the mount completed a flush
    std::uint64_t refused = 0;     // it left the flush out, and said so
    std::uint64_t readOnly = 0;    // it allowed no writing, or no mount at all, and said why
    std::uint64_t discarded = 0;   // the neighbour had made the flush invalid
    std::uint64_t theirsLost = 0;  // something that the neighbour wrote is not there
    std::uint64_t promiseLost = 0; // something promised is not there, and it was not discarded
    std::uint64_t unsaid = 0;      // the check complains, and nothing was said
    std::uint64_t unmarked = 0;    // right after the cut: half a flush, and no dirty flag
};

struct NeighbourReport {
    static constexpr std::size_t kExamplesMax = 12;

    std::map<Neighbour, NeighbourCounts> counts;
    std::vector<std::string> examples;

    bool isSound() const { return examples.empty(); }
    std::string table() const; // with the examples
    void add(const NeighbourReport& other);
};

// Every neighbour after every cut in order of one script. `base` is preparedVolume().
NeighbourReport tryNeighbours(const Bytes& base, const Script& script);

} // namespace tavelin::test
