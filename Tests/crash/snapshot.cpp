#include "crash/snapshot.hpp"

#include "hosting/paths.hpp"

#include <algorithm>
#include <stdexcept>

namespace tavelin::test {

namespace {

SnapshotEntry entryOf(VolumeClient& volume, const std::string& path, const DirectoryEntry& entry) {
    if (!entry.attributes) {
        throw std::runtime_error("has no readable attributes");
    }
    ItemState state = observe(volume, path);
    if (state.kind == ItemKind::directory) {
        state.times = {};
    } else if (state.kind == ItemKind::file && state.content.size() != state.size) {
        throw std::runtime_error("reads short");
    }
    return {state.kind, std::move(state.content), std::move(state.streams), state.times[modifyTime],
            state.times[birthTime]};
}

void takeDirectory(VolumeClient& volume, const std::string& directory, Snapshot& snapshot) {
    const ItemRef item = resolve(volume, directory, LastLink::keep).get().item;
    for (const DirectoryEntry& entry : volume.list(item, true).get()) {
        const std::string path = directory + (directory.empty() ? "" : "/") + entry.name;
        try {
            const SnapshotEntry& taken = snapshot.entries[path] = entryOf(volume, path, entry);
            if (taken.kind == ItemKind::directory) {
                takeDirectory(volume, path, snapshot);
            }
        } catch (const std::exception& error) {
            snapshot.unreadable[path] = error.what();
        }
    }
}

} // namespace

bool Snapshot::isHidden(const std::string& path) const {
    return std::ranges::any_of(unreadable, [&](const auto& bad) {
        return bad.first.empty() || path == bad.first || path.starts_with(bad.first + "/");
    });
}

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

} // namespace tavelin::test
