#include "fault/requests.hpp"

#include "hosting/paths.hpp"
#include "platform/error_numbers.hpp"

#include <algorithm>
#include <stdexcept>

namespace tavelin::test {

namespace {

constexpr std::size_t kUncached = 300000; // bytes: more than the page cache takes in one piece

ItemRef at(VolumeClient& volume, const std::string& path) {
    return resolve(volume, path, LastLink::keep).get().item;
}

void expect(bool right, const char* what) {
    if (!right) {
        throw std::runtime_error(std::string("wrong answer: ") + what);
    }
}

void readFile(VolumeClient& volume) {
    const ItemRef file = at(volume, "stable/11");
    Bytes content(volume.attributes(file).get().size());
    expect(volume.read(file, 0, content).get() == content.size(), "read");
}

void list(VolumeClient& volume) {
    const auto entries = volume.list(at(volume, "crowd"), true).get();
    expect(entries.size() == 40, "list");
    for (const DirectoryEntry& entry : entries) {
        // An entry whose attributes cannot be read is listed without them.
        if (!entry.attributes) {
            throw fskit::fs_errorForPOSIXError(kEIO);
        }
    }
}

void readStreams(VolumeClient& volume) {
    const ItemRef file = at(volume, "stable/3");
    expect(volume.listXattrs(file).get().size() == 1, "list streams");
    expect(volume.getXattr(file, "kept").get().size() == 2000, "read stream");
}

bool isTouched(const Operation& request, const std::string& path) {
    return std::find(request.touches.begin(), request.touches.end(), path) != request.touches.end();
}

} // namespace

const std::vector<Operation>& allRequests() {
    static const std::vector<Operation> requests = [] {
        std::vector<Operation> all = allOperations();
        all.push_back(
            {"write uncached",
             [](auto& v) {
                 v.write(at(v, "work/appended"), 100, Bytes(kUncached, std::byte{'u'})).get();
             },
             {"work/appended"},
             {}});
        all.push_back({"open and close",
                       [](auto& v) {
                           const ItemRef file = at(v, "stable/5");
                           v.open(file, fskit::FSVolumeOpenModesRead).get();
                           v.close(file, 0);
                       },
                       {},
                       {}});
        all.push_back({"read", readFile, {}, {}});
        all.push_back({"list", list, {}, {}});
        all.push_back(
            {"read link",
             [](auto& v) { expect(v.readSymbolicLink(at(v, "stable/link")).get() == "3", "link"); },
             {},
             {}});
        all.push_back({"read streams", readStreams, {}, {}});
        return all;
    }();
    return requests;
}

std::optional<std::string> difference(const Snapshot& wanted, const Snapshot& found,
                                      const Operation& request, bool touchedToo) {
    if (wanted.label != found.label && (touchedToo || request.name != "label")) {
        return "the label differs";
    }
    for (const auto& [path, entry] : wanted.entries) {
        const auto at = found.entries.find(path);
        if (!touchedToo && isTouched(request, path)) {
            continue;
        }
        if (at == found.entries.end()) {
            return path + " is lost";
        }
        if (!entry.sameContent(at->second)) {
            return path + " differs";
        }
    }
    for (const auto& [path, entry] : found.entries) {
        if (!wanted.entries.contains(path) && (touchedToo || !isTouched(request, path))) {
            return path + " is unexpected";
        }
    }
    return std::nullopt;
}

} // namespace tavelin::test
