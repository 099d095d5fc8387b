#include "lab/snapshot.hpp"

#include "core/journal/crc32c.hpp"
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

// Whether each sector of a file is as at the first moment, or as the same file had it later.
bool isContentSince(std::span<const Snapshot> moments, const std::string& path,
                    const std::string& now) {
    const ItemState& then = moments.front().entries.at(path);
    if (now.size() != then.content.size()) {
        return false;
    }
    const auto isSector = [&](const Snapshot& moment, std::size_t at, std::size_t end) {
        const auto later = moment.entries.find(path);
        if (later == moment.entries.end() ||
            later->second.times[birthTime] != then.times[birthTime]) {
            return false;
        }
        // A file that is shorter then says nothing about what lies behind its end.
        std::string expected = then.content.substr(at, end - at);
        const std::string& content = later->second.content;
        if (const std::size_t known = std::min(content.size(), end); known > at) {
            expected.replace(0, known - at, content, at, known - at);
        }
        return now.compare(at, end - at, expected) == 0;
    };
    for (std::size_t at = 0; at < now.size(); at += kSectorBytes) {
        const auto end = std::min<std::size_t>(at + kSectorBytes, now.size());
        if (std::ranges::none_of(moments,
                                 [&](const Snapshot& m) { return isSector(m, at, end); })) {
            return false;
        }
    }
    return true;
}

} // namespace

bool hasNewerBytes(std::span<const Snapshot> moments, const Snapshot& found) {
    for (; !moments.empty(); moments = moments.subspan(1)) {
        if (moments.front() == found) {
            return false;
        }
        Snapshot moment = moments.front();
        for (auto& [path, then] : moment.entries) {
            const auto now = found.entries.find(path);
            if (now != found.entries.end() && then.kind == ItemKind::file &&
                isContentSince(moments, path, now->second.content)) {
                then.content = now->second.content;
            }
        }
        if (moment == found) {
            return true;
        }
    }
    return false;
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
