// The changes whose power cuts are tried, and the volume they are made on.
#pragma once

#include "crash/recording_resource.hpp"
#include "hosting/volume_client.hpp"

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace tavelin::test {

struct Operation {
    std::string name;
    std::function<void(VolumeClient&)> run;
    // Paths whose content or existence it changes; everything else must not notice.
    std::vector<std::string> touches;
    // From, to: at every moment the file must be at one of the two.
    std::vector<std::pair<std::string, std::string>> moves;
};

const std::vector<Operation>& allOperations();

// A formatted volume of 4 MiB with files for the operations to work on, others for them to leave
// alone, and a directory large enough to have index blocks. Cleanly unmounted.
Bytes preparedVolume();

} // namespace tavelin::test
