#include "lab/requests.hpp"

#include "hosting/paths.hpp"
#include "lab/system.hpp"
#include "platform/error_numbers.hpp"

#include <algorithm>
#include <stdexcept>

namespace tavelin::test {

namespace {

constexpr std::int64_t kUncached = 300000; // bytes: more than the page cache takes in one piece

// Looks at everything of an item, whose content and stream "kept" have so many bytes.
Workload reading(const std::string& path, std::size_t size, std::size_t streamSize) {
    return {"read " + path, [=](VolumeClient& volume) {
                ItemState item = observe(volume, path);
                if (item.content.size() != size || item.streams["kept"].size() != streamSize) {
                    throw std::runtime_error("wrong answer");
                }
            }};
}

void list(VolumeClient& volume) {
    const ItemRef directory = resolve(volume, "crowd").get().item;
    const auto entries = volume.list(directory, true).get();
    if (entries.size() != 40) {
        throw std::runtime_error("wrong answer");
    }
    for (const DirectoryEntry& entry : entries) {
        // An entry whose attributes cannot be read is listed without them.
        if (!entry.attributes) {
            throw fskit::fs_errorForPOSIXError(kEIO);
        }
    }
}

void openAndClose(VolumeClient& volume) {
    const ItemRef file = resolve(volume, "stable/5").get().item;
    volume.open(file, fskit::FSVolumeOpenModesRead).get();
    volume.close(file, 0);
}

} // namespace

const std::vector<Workload>& allRequests() {
    static const std::vector<Workload> requests = [] {
        std::vector<Workload> all = allChanges();
        all.emplace_back("write uncached",
                         Operations{{Verb::write, "work/appended", "", 100, kUncached, 1}});
        all.emplace_back("open and close", openAndClose);
        all.emplace_back("list", list);
        all.push_back(reading("stable/11", 44100, 0));
        all.push_back(reading("stable/link", 1, 0));
        all.push_back(reading("stable/3", 12100, 2000));
        return all;
    }();
    return requests;
}

} // namespace tavelin::test
