#include "crash/snapshot.hpp"

#include "hosting/paths.hpp"

#include <algorithm>
#include <stdexcept>

namespace tavelin::test {

namespace {

ItemState entryOf(VolumeClient& volume, const std::string& path, const DirectoryEntry& entry) {
    if (!entry.attributes) {
        throw std::runtime_error("has no readable attributes");
    }
    ItemState state = observe(volume, path);
    if (state.kind == ItemKind::file && state.content.size() != state.size) {
        throw std::runtime_error("reads short");
    }
    state.times[accessTime] = state.times[changeTime] = 0;
    if (state.kind == ItemKind::directory) {
        state.times = {};
        state.size = 0;
    }
    return state;
}

void takeDirectory(VolumeClient& volume, const std::string& directory, Snapshot& snapshot) {
    const ItemRef item = resolve(volume, directory, LastLink::keep).get().item;
    for (const DirectoryEntry& entry : volume.list(item, true).get()) {
        const std::string path = directory + (directory.empty() ? "" : "/") + entry.name;
        try {
            const ItemState& taken = snapshot.entries[path] = entryOf(volume, path, entry);
            if (taken.kind == ItemKind::directory) {
                takeDirectory(volume, path, snapshot);
            }
        } catch (const std::exception& error) {
            snapshot.unreadable[path] = error.what();
        }
    }
}

} // namespace

Snapshot takeSnapshot(VolumeClient& volume) {
    Snapshot snapshot;
    snapshot.label = volume.name();
    try {
        takeDirectory(volume, "", snapshot);
    } catch (const std::exception& error) {
        snapshot.unreadable[""] = error.what();
    }
    return snapshot;
}

std::string difference(const Snapshot& wanted, const Snapshot& found,
                       const std::vector<std::string>& except) {
    const auto matters = [&](const std::string& path) {
        return std::ranges::find(except, path) == except.end();
    };
    if (wanted.label != found.label && matters("")) {
        return "the label differs";
    }
    for (const auto& [path, why] : found.unreadable) {
        if (matters(path)) {
            return path + ": " + why;
        }
    }
    for (const auto& [path, entry] : wanted.entries) {
        const auto at = found.entries.find(path);
        if (matters(path) && at == found.entries.end()) {
            return path + " is lost";
        }
        if (matters(path) && !entry.hasSameContent(at->second)) {
            return path + " differs";
        }
    }
    for (const auto& [path, entry] : found.entries) {
        if (matters(path) && !wanted.entries.contains(path)) {
            return path + " is unexpected";
        }
    }
    return "";
}

} // namespace tavelin::test
