// NTFS volumes made by mkntfs for one test.
#pragma once

#include "support/temp_directory.hpp"

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace tavelin::test {

struct VolumeGeometry {
    uint64_t bytes = 16ull << 20; // of the image file
    uint32_t clusterSize = 4096;  // bytes
    uint32_t sectorSize = 512;    // bytes
    std::string label = "Sample";
};

// Makes an NTFS image at `image`. Throws std::runtime_error with what mkntfs said.
void makeVolume(const std::filesystem::path& image, const VolumeGeometry& geometry = {});

// One volume in a directory of its own. The first volume of a geometry is formatted, later ones are
// copies of it, so a test may take as many as it likes. Whatever wrote to it has to have left it
// sound: the structural check looks at it in the end, and a finding fails the test.
class SampleVolume {
  public:
    explicit SampleVolume(const VolumeGeometry& geometry = {});
    ~SampleVolume();
    SampleVolume(const SampleVolume&) = delete;
    SampleVolume& operator=(const SampleVolume&) = delete;

    const std::filesystem::path& image() const { return image_; }
    const TempDirectory& directory() const { return directory_; }

    // The test damages the image, or leaves it while it is mounted: no check in the end.
    void leaveUnchecked() const { isChecked_ = false; }
    bool isChecked() const { return isChecked_; }

    // What an independent reader says of it: the text `ntfsfix -n` prints, which names every fault
    // it finds. Throws when it cannot read the volume at all, or when the clusters that the file
    // records use are not those that the volume's bitmap says are in use.
    std::string check() const;
    // The content of a file, by ntfscat. `stream` names an alternate stream.
    std::string cat(const std::string& path, const std::string& stream = {}) const;
    // The names in a directory, by ntfsls, sorted.
    std::vector<std::string> list(const std::string& path = "/") const;

  private:
    TempDirectory directory_;
    std::filesystem::path image_;
    mutable bool isChecked_ = true;
};

} // namespace tavelin::test
