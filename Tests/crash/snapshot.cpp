#include "crash/snapshot.hpp"

#include "hosting/paths.hpp"

#include <algorithm>
#include <stdexcept>

namespace tavelin::test {

namespace {

std::vector<std::byte> contentOf(VolumeClient& volume, const ItemRef& item,
                                 const fskit::FSItemAttributes& attributes) {
    if (attributes.type() == fskit::FSItemType::symlink) {
        const std::string target = volume.readSymbolicLink(item).get();
        const auto* bytes = reinterpret_cast<const std::byte*>(target.data());
        return {bytes, bytes + target.size()};
    }
    std::vector<std::byte> content(attributes.size());
    const std::size_t count = volume.read(item, 0, content).get();
    if (count != content.size()) {
        throw std::runtime_error("reads short");
    }
    return content;
}

SnapshotEntry entryOf(VolumeClient& volume, const std::string& path, const DirectoryEntry& entry) {
    if (!entry.attributes) {
        throw std::runtime_error("has no readable attributes");
    }
    const Found found = resolve(volume, path, LastLink::keep).get();
    SnapshotEntry result;
    result.type = found.attributes.type();
    result.modified = found.attributes.modifyTime();
    result.born = found.attributes.birthTime();
    if (result.type != fskit::FSItemType::directory) {
        result.content = contentOf(volume, found.item, found.attributes);
    }
    for (const std::string& name : volume.listXattrs(found.item).get()) {
        result.streams[name] = volume.getXattr(found.item, name).get();
    }
    return result;
}

void takeDirectory(VolumeClient& volume, const ItemRef& directory, const std::string& prefix,
                   Snapshot& snapshot) {
    for (const DirectoryEntry& entry : volume.list(directory, true).get()) {
        const std::string path = prefix + entry.name;
        try {
            const SnapshotEntry& taken = snapshot.entries[path] = entryOf(volume, path, entry);
            if (taken.type == fskit::FSItemType::directory) {
                const Found found = resolve(volume, path, LastLink::keep).get();
                takeDirectory(volume, found.item, path + "/", snapshot);
            }
        } catch (const std::exception& error) {
            snapshot.unreadable[path] = error.what();
        }
    }
}

} // namespace

bool Snapshot::isHidden(const std::string& path) const {
    const auto holds = [&](const auto& bad) {
        return bad.first.empty() || path == bad.first || path.starts_with(bad.first + "/");
    };
    return std::any_of(unreadable.begin(), unreadable.end(), holds);
}

bool Snapshot::sameAs(const Snapshot& other) const {
    const auto same = [](const auto& mine, const auto& theirs) {
        return mine.first == theirs.first && mine.second.sameAs(theirs.second);
    };
    return label == other.label && unreadable == other.unreadable &&
           std::equal(entries.begin(), entries.end(), other.entries.begin(), other.entries.end(),
                      same);
}

Snapshot takeSnapshot(VolumeClient& volume) {
    Snapshot snapshot;
    snapshot.label = volume.name();
    try {
        takeDirectory(volume, volume.root(), "", snapshot);
    } catch (const std::exception& error) {
        snapshot.unreadable[""] = error.what();
    }
    return snapshot;
}

} // namespace tavelin::test
