// Scripts of operations on a fresh volume and on a plain model of one, which must agree on every
// answer and every item after every step, and again after the volume was closed and opened.
#pragma once

#include "lab/operation.hpp"
#include "support/sample_volume.hpp"

#include <cstdint>
#include <string>

namespace tavelin::test {

struct ModelRun {
    VolumeGeometry geometry{.bytes = 128ull << 20};
    bool windowsNames = false; // the option windows_names

    // What went wrong first, in the volume's own checks too; empty when nothing did.
    std::string play(const Operations& script) const;
    // The same of random operations. What went wrong comes with the shortest script that shows it.
    std::string playRandom(std::uint64_t seed, std::size_t steps) const;
};

} // namespace tavelin::test
