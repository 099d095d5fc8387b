#include "fuzz/hostile_image.hpp"
#include "hosting/module_host.hpp"
#include "hosting/paths.hpp"

#include <array>
#include <functional>

// What the library loses is for it to find.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libntfs-3g\n";
}

namespace tavelin::test {

namespace {

using Path = const std::string&;

constexpr std::size_t kWalkEntriesMax = 400; // of a walk: directories may hold each other
constexpr std::size_t kReadBytesMax = 1 << 20;

ItemRef at(VolumeClient& volume, Path path) {
    return resolve(volume, path, LastLink::keep).get().item;
}

void walkAll(VolumeClient& volume, Path path) {
    std::size_t seen = 0;
    walk(volume, at(volume, path), [&](const std::string&, const DirectoryEntry&) {
        return ++seen < kWalkEntriesMax;
    }).get();
}

void readAll(VolumeClient& volume, Path path) {
    const ItemRef item = at(volume, path);
    const auto attributes = volume.attributes(item).get();
    if (attributes.type() == fskit::FSItemType::symlink) {
        (void)volume.readSymbolicLink(item).get();
        return;
    }
    Bytes content(std::min<std::size_t>(attributes.size(), kReadBytesMax));
    (void)volume.read(item, 0, content).get();
}

void readStreams(VolumeClient& volume, Path path) {
    const ItemRef item = at(volume, path);
    for (const std::string& name : volume.listXattrs(item).get()) {
        (void)volume.getXattr(item, name).get();
    }
}

void create(VolumeClient& volume, Path path) {
    const ItemRef directory = at(volume, path);
    (void)volume.create(directory, "a new file with a name", fskit::FSItemType::file).get();
    (void)volume.create(directory, "a new folder", fskit::FSItemType::directory).get();
    (void)volume.createSymbolicLink(directory, "a new link", "target").get();
}

void rename(VolumeClient& volume, Path path) {
    const Location from = locate(volume, path).get();
    volume.rename(at(volume, path), from.directory, from.name, volume.root(), "moved", {}).get();
}

void replace(VolumeClient& volume, Path path) {
    const Location from = locate(volume, path).get();
    const Location to = locate(volume, "other/away").get();
    volume
        .rename(at(volume, path), from.directory, from.name, to.directory, to.name,
                at(volume, "other/away"))
        .get();
}

void link(VolumeClient& volume, Path path) {
    volume.createLink(at(volume, path), at(volume, "other"), "a second name").get();
}

constexpr std::uint32_t kHidden = 0x8000; // macOS's flag

void changeAttributes(VolumeClient& volume, Path path) {
    fskit::FSItemSetAttributesRequest request;
    request.setModifyTime({1000000000, 0});
    request.setBirthTime({-1, 999999999});
    request.setFlags(kHidden);
    (void)volume.setAttributes(at(volume, path), request).get();
}

void describe(VolumeClient& volume, Path path) {
    const Location where = locate(volume, path).get();
    if (const auto found = volume.find(where.directory, where.name).get()) {
        (void)volume.describe(where.directory, found->attributes.fileID()).get();
    }
}

void write(VolumeClient& volume, Path path) {
    const ItemRef item = at(volume, path);
    (void)volume.write(item, 5000, Bytes(70000, std::byte{'w'})).get();
    (void)volume.write(item, 10, Bytes(10, std::byte{'w'})).get();
}

void truncate(VolumeClient& volume, Path path) {
    for (const std::uint64_t size : {200000, 10}) {
        fskit::FSItemSetAttributesRequest request;
        request.setSize(size);
        (void)volume.setAttributes(at(volume, path), request).get();
    }
}

void remove(VolumeClient& volume, Path path) {
    const Location where = locate(volume, path).get();
    volume.remove(at(volume, path), where.directory, where.name).get();
}

void changeStreams(VolumeClient& volume, Path path) {
    const ItemRef item = at(volume, path);
    volume.setXattr(item, "note", Bytes(3000, std::byte{'s'})).get();
    volume.removeXattr(item, "tag").get();
}

void askVolume(VolumeClient& volume, Path /*path*/) {
    (void)volume.statistics();
    volume.setName("Renamed").get();
    volume.synchronize().get();
}

using Request = void (*)(VolumeClient&, Path);
constexpr std::array<Request, 14> kRequests{
    walkAll,       readAll,   readStreams, create, rename,           write,   truncate, remove,
    changeStreams, askVolume, replace,     link,   changeAttributes, describe};

const std::array<std::string, 18> kPaths{
    "",           "work",        "work/appended", "work/shrunk",   "work/tagged",   "work/empty",
    "stable",     "stable/link", "stable/3",      "stable/deep/1", "crowd",         "other",
    "work/mover", "stable/11",   "a new folder",  "moved",         "stable/deep/2", "work/README"};

} // namespace

void sendRequests(Bytes volume, InputReader& input) {
    ModuleHost host(std::make_shared<RecordingResource>(std::move(volume)));
    try {
        host.open();
    } catch (const OpenError&) {
        return;
    }
    while (!input.isAtEnd()) {
        const Request request = kRequests[input.byte() % kRequests.size()];
        try {
            request(host.volume(), kPaths[input.byte() % kPaths.size()]);
        } catch (const fskit::Error&) {
            // What a damaged volume answers is for it to choose.
        }
    }
    (void)host.close(); // the same
}

} // namespace tavelin::test
