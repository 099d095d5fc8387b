// What programs that are not ours say of a volume that has been unmounted.
#pragma once

#include "lab/cut.hpp"
#include "support/sample_volume.hpp"

#include <string>
#include <vector>

namespace tavelin::test {

// SampleVolume::check() of images in memory. One thread at a time.
class IndependentCheck {
  public:
    // Throws std::runtime_error when the check cannot be made or `sound` does not pass it.
    explicit IndependentCheck(const Bytes& sound);

    // The lines that are not said of the sound image, with # for numbers.
    std::string complaintsAbout(const Bytes& image) const;

  private:
    std::vector<std::string> linesAbout(const Bytes& image) const;

    const SampleVolume volume_; // holds each image in turn
    const std::vector<std::string> sound_;
};

} // namespace tavelin::test
