/// A volume that is looked at for one thing, by somebody who wants no findings.
#pragma once

#include "check/check.hpp"
#include "check/private/volume.hpp"

#include <cstdint>

namespace tavelin::check {

/// What $VOLUME_INFORMATION holds.
struct VolumeInformation {
    std::uint8_t majorVersion = 0; ///< of NTFS
    std::uint8_t minorVersion = 0;
    std::uint16_t flags = 0; ///< in the numbers of Windows
};

/// Opens the volume. The device outlives it. One thread.
class VolumeView {
  public:
    explicit VolumeView(BlockDevice& device);
    VolumeView(const VolumeView&) = delete;
    VolumeView& operator=(const VolumeView&) = delete;

    /// Whether anything of the volume can be read; without that nothing else may be asked.
    [[nodiscard]] bool isReadable() const noexcept { return isReadable_; }
    [[nodiscard]] Volume& volume() noexcept { return volume_; }
    /// Zeros where the volume has none.
    [[nodiscard]] VolumeInformation information();

  private:
    const Options options_;
    Report report_;
    Volume volume_;
    bool isReadable_ = false;
};

} // namespace tavelin::check
