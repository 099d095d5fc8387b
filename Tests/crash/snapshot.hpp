// What a volume holds, as a program that reads all of it sees it.
#pragma once

#include "hosting/volume_client.hpp"

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace tavelin::test {

struct SnapshotEntry {
    fskit::FSItemType type = fskit::FSItemType::unknown;
    std::vector<std::byte> content; // of a link, its target
    std::map<std::string, std::vector<std::byte>> streams;
    std::timespec modified{};
    std::timespec born{};

    bool sameTimes(const SnapshotEntry& other) const {
        return modified.tv_sec == other.modified.tv_sec &&
               modified.tv_nsec == other.modified.tv_nsec && born.tv_sec == other.born.tv_sec &&
               born.tv_nsec == other.born.tv_nsec;
    }
    bool sameContent(const SnapshotEntry& other) const {
        return type == other.type && content == other.content && streams == other.streams;
    }
    // A directory's own times change with its entries, which are compared instead.
    bool sameAs(const SnapshotEntry& other) const {
        return sameContent(other) && (type == fskit::FSItemType::directory || sameTimes(other));
    }
};

struct Snapshot {
    std::map<std::string, SnapshotEntry> entries;  // by path from the root, "a/b"
    std::map<std::string, std::string> unreadable; // what could not be opened, read or listed: why
    std::string label;

    bool sameAs(const Snapshot& other) const;
    // Whether the path is in a directory that could not be listed.
    bool isHidden(const std::string& path) const;
};

// Lists, opens and reads everything.
Snapshot takeSnapshot(VolumeClient& volume);

} // namespace tavelin::test
