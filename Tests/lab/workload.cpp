#include "lab/workload.hpp"

#include "hosting/module_host.hpp"
#include "lab/host_disk.hpp"
#include "lab/system.hpp"
#include "support/sample_volume.hpp"

#include <cstring>

namespace tavelin::test {

namespace {

constexpr std::int64_t kRemove = 3; // the policy that removes a stream

Operation writing(const std::string& path, std::int64_t offset, std::int64_t length) {
    return {Verb::write, path, "", offset, length, std::hash<std::string>()(path)};
}

Operations making(const std::string& path, std::int64_t length) {
    return {{Verb::create, path}, writing(path, 0, length)};
}

Operations renaming(const std::string& from, const std::string& to) {
    return {{Verb::rename, from, to}};
}

std::string crowded(int number) {
    return "crowd/a name that is long enough to fill index blocks quickly " +
           std::to_string(number);
}

Operations makingMany() {
    Operations operations;
    for (int i = 100; i < 130; i++) {
        for (const Operation& operation : making(crowded(i), 100)) {
            operations.push_back(operation);
        }
    }
    return operations;
}

Operations removingMany() {
    Operations operations;
    for (int i = 0; i < 40; i += 2) {
        operations.push_back({Verb::remove, crowded(i)});
    }
    return operations;
}

// Also of index blocks that have only just been freed.
Operations trimming() {
    Operations operations{{Verb::remove, "work/unlinked"}};
    const std::string directory = "work/brief";
    operations.push_back({Verb::mkdir, directory});
    for (const Verb verb : {Verb::create, Verb::remove}) {
        for (int i = 0; i < 20; i++) {
            operations.push_back({verb, directory + crowded(i).substr(5)});
        }
    }
    operations.push_back({Verb::remove, directory});
    operations.push_back({Verb::trim});
    return operations;
}

void carryOutAll(VolumeClient& volume, const Operations& operations) {
    for (const Operation& operation : operations) {
        carryOut(volume, operation);
    }
}

} // namespace

Workload::Workload(std::string called, Operations made)
    : name(std::move(called)),
      run([made](VolumeClient& volume) { carryOutAll(volume, made); }),
      operations(std::move(made)) {
    for (const Operation& operation : operations) {
        if (!operation.path.empty() && (touches.empty() || touches.back() != operation.path)) {
            touches.push_back(operation.path);
        }
        if (operation.verb == Verb::rename) {
            touches.push_back(operation.text);
        }
    }
}

const std::vector<Workload>& allChanges() {
    static const std::vector<Workload> changes{
        {"create", Operations{{Verb::create, "work/new"}}},
        {"write", making("work/written", 20000)},
        {"write much", making("work/large", 300000)},
        {"append", Operations{writing("work/appended", 9000, 9000)}},
        {"overwrite", Operations{writing("work/overwritten", 3000, 5000)}},
        {"truncate down", Operations{{Verb::truncate, "work/shrunk", "", 100}}},
        {"truncate up", Operations{{Verb::truncate, "work/grown", "", 50000}}},
        {"mkdir", Operations{{Verb::mkdir, "work/made"}}},
        {"rmdir", Operations{{Verb::remove, "work/empty"}}},
        {"unlink", Operations{{Verb::remove, "work/unlinked"}}},
        {"rename", renaming("work/from", "work/to")},
        {"rename over", renaming("work/winner", "work/loser")},
        {"rename across", renaming("work/mover", "other/moved")},
        {"rename back", renaming("other/away", "work/back")},
        {"rename inside", renaming(crowded(3), "crowd/z")},
        {"rename inside back", renaming(crowded(39), "crowd/0")},
        {"rename case", renaming("work/readme", "work/README")},
        {"symlink", Operations{{Verb::symlink, "work/link", "../stable/0"}}},
        {"set stream", Operations{{Verb::setStream, "work/streamed", "note", 0, 3000, 5}}},
        {"remove stream", Operations{{Verb::setStream, "work/tagged", "tag", kRemove}}},
        {"set times", Operations{{Verb::times, "work/timed", "", 1000000000, 0, 1u << modifyTime}}},
        {"label", [](VolumeClient& volume) { volume.setName("Renamed").get(); }, {""}},
        {"create many", makingMany()},
        {"remove many", removingMany()},
        {"trim", trimming()},
    };
    return changes;
}

Bytes preparedVolume(const VolumeGeometry& geometry) {
    const SampleVolume volume(geometry);
    const auto disk = std::make_shared<HostDisk>(loadImage(volume.image()));
    ModuleHost host(disk);
    host.open();
    VolumeClient& v = host.volume();
    for (const char* directory :
         {"work", "other", "stable", "stable/deep", "crowd", "work/empty"}) {
        carryOut(v, {Verb::mkdir, directory});
    }
    for (const char* file : {"appended", "overwritten", "shrunk", "grown", "unlinked", "from",
                             "winner", "loser", "mover", "readme", "streamed", "tagged", "timed"}) {
        carryOutAll(v, making(std::string("work/") + file, 9000));
    }
    carryOutAll(v, making("other/away", 9000));
    carryOut(v, {Verb::setStream, "work/tagged", "tag", 0, 40, 7});
    for (int i = 0; i < 12; i++) {
        carryOutAll(v, making("stable/" + std::to_string(i), 100 + i * 4000));
        carryOutAll(v, making("stable/deep/" + std::to_string(i), 300));
    }
    carryOut(v, {Verb::setStream, "stable/3", "kept", 0, 2000, 8});
    carryOut(v, {Verb::symlink, "stable/link", "3"});
    for (int i = 0; i < 40; i++) {
        carryOutAll(v, making(crowded(i), 50));
    }
    host.close().get();
    return disk->bytes;
}

} // namespace tavelin::test
