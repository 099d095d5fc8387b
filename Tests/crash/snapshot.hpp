// What a volume holds, as a program that reads all of it sees it.
#pragma once

#include "hosting/system.hpp"

#include <map>
#include <string>

namespace tavelin::test {

struct SnapshotEntry {
    ItemKind kind = ItemKind::file;
    std::string content; // of a link, its target
    std::map<std::string, std::string> streams;
    // Of a directory 0: its own times change with its entries, which are compared instead.
    Ticks modified = 0;
    Ticks born = 0;

    bool operator==(const SnapshotEntry&) const = default;
    bool sameContent(const SnapshotEntry& other) const {
        return kind == other.kind && content == other.content && streams == other.streams;
    }
};

struct Snapshot {
    std::map<std::string, SnapshotEntry> entries;  // by path from the root, "a/b"
    std::map<std::string, std::string> unreadable; // what could not be opened, read or listed: why
    std::string label;

    bool operator==(const Snapshot&) const = default;
    // Whether the path is in a directory that could not be listed.
    bool isHidden(const std::string& path) const;
};

// Lists, opens and reads everything.
Snapshot takeSnapshot(VolumeClient& volume);

} // namespace tavelin::test
