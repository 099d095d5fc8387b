// The changes whose power cuts are tried, and the volume they are made on.
#pragma once

#include "hosting/volume_client.hpp"
#include "lab/operation.hpp"
#include "support/bytes.hpp"
#include "support/sample_volume.hpp"

#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace tavelin::test {

struct Workload {
    Workload() = default;
    // Of operations, one after the other.
    Workload(std::string called, Operations made);
    // Of what is no operation. It throws fskit::Error when a request fails.
    Workload(std::string called, std::function<void(VolumeClient&)> requests,
             std::vector<std::string> changed = {})
        : name(std::move(called)), run(std::move(requests)), touches(std::move(changed)) {}

    std::string name;
    std::function<void(VolumeClient&)> run;
    Operations operations;
    // Paths whose content or existence it changes, "" for the label; all else must not notice.
    std::vector<std::string> touches;
    // What may be one way or the other while it is not known to be done.
    std::vector<std::string> undecided(bool done) const {
        return done ? std::vector<std::string>() : touches;
    }
};

const std::vector<Workload>& allChanges();

// A formatted volume with files for the changes to work on, others for them to leave alone, and a
// directory large enough to have index blocks. Cleanly unmounted.
Bytes preparedVolume(const VolumeGeometry& geometry = {.bytes = 4u << 20});

} // namespace tavelin::test
