#include "support/sample_volume.hpp"

#include "lab/structural_check.hpp"
#include "support/run_process.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <exception>
#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <tuple>

namespace tavelin::test {
namespace {

using GeometryKey = std::tuple<uint64_t, uint32_t, uint32_t, std::string>;

// Formatted images kept for the life of the process, one a geometry.
const std::filesystem::path& formatted(const VolumeGeometry& geometry) {
    static std::mutex mutex;
    static TempDirectory directory;
    static std::map<GeometryKey, std::filesystem::path> images;
    const std::lock_guard lock(mutex);
    const GeometryKey key{geometry.bytes, geometry.clusterSize, geometry.sectorSize,
                          geometry.label};
    const auto [entry, fresh] = images.try_emplace(key);
    if (fresh) {
        entry->second = directory / (std::to_string(images.size()) + ".img");
        makeVolume(entry->second, geometry);
    }
    return entry->second;
}

} // namespace

void makeVolume(const std::filesystem::path& image, const VolumeGeometry& geometry) {
    writeFile(image, {});
    std::filesystem::resize_file(image, geometry.bytes);
    runOrThrow({"mkntfs", "--quiet", "--fast", "--force", "--cluster-size",
                std::to_string(geometry.clusterSize), "--sector-size",
                std::to_string(geometry.sectorSize), "--label", geometry.label, image.string()});
}

SampleVolume::SampleVolume(const VolumeGeometry& geometry) : image_(directory_ / "volume.img") {
    // cp keeps the holes of a sparse image, which copy_file does not.
    runOrThrow({"cp", "--sparse=always", formatted(geometry).string(), image_.string()});
}

SampleVolume::~SampleVolume() {
    // A test that has failed already says why; its volume may be in any state.
    if (!isChecked_ || std::uncaught_exceptions() > 0 || ::testing::Test::HasFailure()) {
        return;
    }
    if (const std::string complaints = structuralComplaints(image_); !complaints.empty()) {
        ADD_FAILURE() << complaints;
    }
}

std::string SampleVolume::check() const {
    // Walks every file record and compares the clusters in use with the allocation bitmap; then it
    // looks for room to shrink, which a full volume may lack.
    const ProcessResult accounting =
        run({"ntfsresize", "--info", "--force", "--no-progress-bar", image_.string()});
    if (!accounting.ok() && accounting.out.find("Volume is full") == std::string::npos &&
        accounting.err.find("Volume is full") == std::string::npos) {
        throw std::runtime_error(accounting.describe());
    }
    return runOrThrow({"ntfsfix", "-n", image_.string()});
}

std::string SampleVolume::cat(const std::string& path, const std::string& stream) const {
    std::vector<std::string> command{"ntfscat", "--force", "--quiet"};
    if (!stream.empty()) {
        command.insert(command.end(), {"--attribute-name", stream});
    }
    command.insert(command.end(), {image_.string(), path});
    return runOrThrow(command);
}

std::vector<std::string> SampleVolume::list(const std::string& path) const {
    std::istringstream lines(
        runOrThrow({"ntfsls", "--force", "--quiet", "--path", path, image_.string()}));
    std::vector<std::string> names;
    for (std::string name; std::getline(lines, name);) {
        if (name != "." && name != "..") {
            names.push_back(name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace tavelin::test
