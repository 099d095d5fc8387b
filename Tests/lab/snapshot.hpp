// What a volume holds, as a program that reads all of it sees it.
#pragma once

#include "lab/system.hpp"

#include <map>
#include <span>
#include <string>
#include <vector>

namespace tavelin::test {

struct Snapshot {
    // By path from the root, "a/b". Times of access and of status changes are 0; of directories
    // all are, and the size: theirs change with their entries.
    std::map<std::string, ItemState> entries;
    std::map<std::string, std::string> unreadable; // what could not be opened, read or listed: why
    std::string label;

    bool operator==(const Snapshot&) const = default;
};

// Lists, opens and reads everything.
Snapshot takeSnapshot(VolumeClient& volume);

// Whether a volume is as at one of the moments but for bytes that a file got at a later one. Those
// may arrive before the rest, sector by sector; none may be older than the moment.
bool hasNewerBytes(std::span<const Snapshot> moments, const Snapshot& found);

// The first thing of `wanted` that is not so in `found`, whatever the times are; empty when there
// is none. Paths in `except` may be as they like, the label with the path "" too.
std::string difference(const Snapshot& wanted, const Snapshot& found,
                       const std::vector<std::string>& except = {});

} // namespace tavelin::test
