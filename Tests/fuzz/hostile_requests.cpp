#include "fuzz/hostile_image.hpp"
#include "hosting/module_host.hpp"
#include "hosting/paths.hpp"
#include "lab/host_disk.hpp"
#include "lab/system.hpp"

#include <array>
#include <deque>

// What the library loses is for it to find.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libntfs-3g\n";
}

namespace tavelin::test {

namespace {

using Path = const std::string&;

constexpr std::size_t kEntriesSeenMax = 400; // of a tree: directories may hold each other
constexpr std::int64_t kReadBytesMax = 1 << 20;

void listTree(VolumeClient& volume, Path path) {
    std::deque<ItemRef> waiting;
    waiting.push_back(resolve(volume, path, LastLink::keep).get().item);
    for (std::size_t seen = 0; !waiting.empty() && seen < kEntriesSeenMax; waiting.pop_front()) {
        for (const DirectoryEntry& entry : volume.list(waiting.front(), true).get()) {
            ++seen;
            if (entry.type == fskit::FSItemType::directory) {
                waiting.push_back(volume.lookup(waiting.front(), entry.name).get().item);
            }
        }
    }
}

void readStreams(VolumeClient& volume, Path path) {
    const ItemRef item = resolve(volume, path, LastLink::keep).get().item;
    for (const std::string& name : volume.listXattrs(item).get()) {
        (void)volume.getXattr(item, name).get();
    }
}

void link(VolumeClient& volume, Path path) {
    const ItemRef item = resolve(volume, path, LastLink::keep).get().item;
    const ItemRef directory = resolve(volume, "other", LastLink::keep).get().item;
    volume.createLink(item, directory, "a second name").get();
}

void describe(VolumeClient& volume, Path path) {
    const Location where = locate(volume, path).get();
    if (const auto found = volume.find(where.directory, where.name).get()) {
        (void)volume.describe(where.directory, found->attributes.fileID()).get();
    }
}

void askVolume(VolumeClient& volume, Path /*path*/) {
    (void)volume.statistics();
    volume.setName("Renamed").get();
    volume.synchronize().get();
}

// Up to the first that fails.
void send(VolumeClient& volume, const Operations& operations) {
    for (const Operation& operation : operations) {
        carryOut(volume, operation);
    }
}

// Inputs choose by these numbers.
using Request = void (*)(VolumeClient&, Path);
const std::array<Request, 14> kRequests{
    listTree,
    [](auto& v, Path p) {
        send(v, {{Verb::read, p, "", 0, kReadBytesMax}, {Verb::readlink, p}});
    },
    readStreams,
    [](auto& v, Path p) {
        send(v, {{Verb::create, p + "/a new file with a name"},
                 {Verb::mkdir, p + "/a new folder"},
                 {Verb::symlink, p + "/a new link", "target"}});
    },
    [](auto& v, Path p) {
        send(v, {{Verb::rename, p, "/moved"}});
    },
    [](auto& v, Path p) {
        send(v, {{Verb::write, p, "", 5000, 70000}, {Verb::write, p, "", 10, 10}});
    },
    [](auto& v, Path p) {
        send(v, {{Verb::truncate, p, "", 200000}, {Verb::truncate, p, "", 10}});
    },
    [](auto& v, Path p) {
        send(v, {{Verb::remove, p}});
    },
    [](auto& v, Path p) {
        send(v, {{Verb::setStream, p, "note", 0, 3000}, {Verb::setStream, p, "tag", 3}});
    },
    askVolume,
    [](auto& v, Path p) {
        send(v, {{Verb::rename, p, "other/away"}});
    },
    link,
    [](auto& v, Path p) {
        send(v, {{Verb::times, p, "", 1000000000, 0, 1u << modifyTime},
                 {Verb::times, p, "", -1, 999999999, 1u << birthTime},
                 {Verb::hide, p, "", 1}});
    },
    describe};

const std::array<std::string, 18> kPaths{
    "",           "work",        "work/appended", "work/shrunk",   "work/tagged",   "work/empty",
    "stable",     "stable/link", "stable/3",      "stable/deep/1", "crowd",         "other",
    "work/mover", "stable/11",   "a new folder",  "moved",         "stable/deep/2", "work/README"};

} // namespace

void sendRequests(MappedImage volume, InputReader& input) {
    ModuleHost host(std::make_shared<HostDiskOf<MappedImage>>(std::move(volume)));
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
