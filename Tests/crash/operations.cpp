#include "crash/operations.hpp"

#include "hosting/module_host.hpp"
#include "hosting/paths.hpp"
#include "platform/error_numbers.hpp"
#include "support/sample_volume.hpp"

#include <algorithm>
#include <cstring>

namespace tavelin::test {

namespace {

using fskit::FSItemType;

// Bytes that tell where they belong, so that a misplaced block is seen.
Bytes patterned(std::size_t length, unsigned seed) {
    Bytes bytes(length);
    for (std::size_t i = 0; i < length; i++) {
        bytes[i] = static_cast<std::byte>((i / 251 + i * 7 + seed * 131) & 0xff);
    }
    return bytes;
}

ItemRef at(VolumeClient& volume, const std::string& path) {
    return resolve(volume, path, LastLink::keep).get().item;
}

void makeFile(VolumeClient& volume, const std::string& path, const Bytes& content) {
    const Location where = locate(volume, path).get();
    const ItemRef file = volume.create(where.directory, where.name, FSItemType::file).get().item;
    if (!content.empty()) {
        volume.write(file, 0, content).get();
    }
}

void makeDirectory(VolumeClient& volume, const std::string& path) {
    const Location where = locate(volume, path).get();
    volume.create(where.directory, where.name, FSItemType::directory).get();
}

void write(VolumeClient& volume, const std::string& path, std::uint64_t offset,
           const Bytes& content) {
    volume.write(at(volume, path), offset, content).get();
}

void truncate(VolumeClient& volume, const std::string& path, std::uint64_t size) {
    fskit::FSItemSetAttributesRequest request;
    request.setSize(size);
    volume.setAttributes(at(volume, path), request).get();
}

void remove(VolumeClient& volume, const std::string& path) {
    const Location where = locate(volume, path).get();
    volume.remove(at(volume, path), where.directory, where.name).get();
}

void rename(VolumeClient& volume, const std::string& from, const std::string& to) {
    const Location source = locate(volume, from).get();
    const Location target = locate(volume, to).get();
    const ItemRef item = at(volume, from);
    ItemRef over;
    if (auto existing = volume.lookup(target.directory, target.name)) {
        if (!(existing->item == item)) {
            over = std::move(existing->item);
        }
    }
    volume.rename(item, source.directory, source.name, target.directory, target.name, over).get();
}

void setStream(VolumeClient& volume, const std::string& path, const std::string& name,
               const Bytes& value) {
    volume.setXattr(at(volume, path), name, value).get();
}

std::string crowded(int number) {
    return "crowd/a name that is long enough to fill index blocks quickly " +
           std::to_string(number);
}

Operation moving(const std::string& name, const std::string& from, const std::string& to) {
    return {name, [=](VolumeClient& v) { rename(v, from, to); }, {from, to}, {{from, to}}};
}

Operation createMany() {
    Operation operation{"create many", {}, {}, {}};
    for (int i = 100; i < 130; i++) {
        operation.touches.push_back(crowded(i));
    }
    operation.run = [names = operation.touches](VolumeClient& volume) {
        for (const std::string& name : names) {
            makeFile(volume, name, patterned(100, 3));
        }
    };
    return operation;
}

Operation removeMany() {
    Operation operation{"remove many", {}, {}, {}};
    for (int i = 0; i < 40; i += 2) {
        operation.touches.push_back(crowded(i));
    }
    operation.run = [names = operation.touches](VolumeClient& volume) {
        for (const std::string& name : names) {
            auto found = resolve(volume, name);
            if (!found && found.error().code() == kENOENT) {
                continue; // gone already, when this is tried again
            }
            const Location where = locate(volume, name).get();
            volume.remove(std::move(found).get().item, where.directory, where.name).get();
        }
    };
    return operation;
}

} // namespace

const std::vector<Operation>& allOperations() {
    static const std::vector<Operation> operations{
        {"create", [](auto& v) { makeFile(v, "work/new", {}); }, {"work/new"}, {}},
        {"write",
         [](auto& v) { makeFile(v, "work/written", patterned(20000, 1)); },
         {"work/written"},
         {}},
        {"write much",
         [](auto& v) { makeFile(v, "work/large", patterned(300000, 4)); },
         {"work/large"},
         {}},
        {"append",
         [](auto& v) { write(v, "work/appended", 9000, patterned(9000, 2)); },
         {"work/appended"},
         {}},
        {"overwrite",
         [](auto& v) { write(v, "work/overwritten", 3000, patterned(5000, 9)); },
         {"work/overwritten"},
         {}},
        {"truncate down", [](auto& v) { truncate(v, "work/shrunk", 100); }, {"work/shrunk"}, {}},
        {"truncate up", [](auto& v) { truncate(v, "work/grown", 50000); }, {"work/grown"}, {}},
        {"mkdir", [](auto& v) { makeDirectory(v, "work/made"); }, {"work/made"}, {}},
        {"rmdir", [](auto& v) { remove(v, "work/empty"); }, {"work/empty"}, {}},
        {"unlink", [](auto& v) { remove(v, "work/unlinked"); }, {"work/unlinked"}, {}},
        moving("rename", "work/from", "work/to"),
        moving("rename over", "work/winner", "work/loser"),
        moving("rename across", "work/mover", "other/moved"),
        moving("rename back", "other/away", "work/back"),
        moving("rename inside", crowded(3), "crowd/z"),
        moving("rename inside back", crowded(39), "crowd/0"),
        moving("rename case", "work/readme", "work/README"),
        {"symlink",
         [](auto& v) { v.createSymbolicLink(at(v, "work"), "link", "../stable/0").get(); },
         {"work/link"},
         {}},
        {"set stream",
         [](auto& v) { setStream(v, "work/streamed", "note", patterned(3000, 5)); },
         {"work/streamed"},
         {}},
        {"remove stream",
         [](auto& v) { v.removeXattr(at(v, "work/tagged"), "tag").get(); },
         {"work/tagged"},
         {}},
        {"set times",
         [](auto& v) {
             fskit::FSItemSetAttributesRequest request;
             request.setModifyTime({1000000000, 0});
             v.setAttributes(at(v, "work/timed"), request).get();
         },
         {"work/timed"},
         {}},
        {"label", [](auto& v) { v.setName("Renamed").get(); }, {}, {}},
        createMany(),
        removeMany(),
    };
    return operations;
}

Bytes preparedVolume() {
    VolumeGeometry geometry;
    geometry.bytes = 4u << 20;
    const SampleVolume volume(geometry);
    const std::string raw = readFile(volume.image());
    Bytes image(raw.size());
    std::memcpy(image.data(), raw.data(), raw.size());

    const auto disk = std::make_shared<RecordingResource>(std::move(image));
    ModuleHost host(disk);
    host.open();
    VolumeClient& v = host.volume();
    for (const char* directory :
         {"work", "other", "stable", "stable/deep", "crowd", "work/empty"}) {
        makeDirectory(v, directory);
    }
    for (const char* file : {"appended", "overwritten", "shrunk", "grown", "unlinked", "from",
                             "winner", "loser", "mover", "readme", "streamed", "tagged", "timed"}) {
        makeFile(v, std::string("work/") + file, patterned(9000, static_cast<unsigned>(file[0])));
    }
    makeFile(v, "other/away", patterned(9000, 6));
    setStream(v, "work/tagged", "tag", patterned(40, 7));
    for (unsigned i = 0; i < 12; i++) {
        makeFile(v, "stable/" + std::to_string(i), patterned(100 + i * 4000, i));
        makeFile(v, "stable/deep/" + std::to_string(i), patterned(300, i));
    }
    setStream(v, "stable/3", "kept", patterned(2000, 8));
    v.createSymbolicLink(at(v, "stable"), "link", "3").get();
    for (int i = 0; i < 40; i++) {
        makeFile(v, crowded(i), patterned(50, static_cast<unsigned>(i)));
    }
    host.close().get();
    return disk->image();
}

} // namespace tavelin::test
