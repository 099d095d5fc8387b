#include "crash/snapshot.hpp"

#include "hosts/module/paths.hpp"

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

} // namespace

Snapshot takeSnapshot(VolumeClient& volume) {
    Snapshot snapshot;
    snapshot.label = volume.name();
    walk(volume, volume.root(), [&](const std::string& path, const DirectoryEntry& entry) {
        try {
            snapshot.entries[path] = entryOf(volume, path, entry);
        } catch (const std::exception& error) {
            throw std::runtime_error(path + ": " + error.what());
        }
        return true;
    }).get();
    return snapshot;
}

} // namespace tavelin::test
