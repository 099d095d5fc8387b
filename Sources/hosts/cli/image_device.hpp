/// An image as the structural check reads it: the volume that the next mount will see.
#pragma once

#include "core/journal/journaled_device.hpp"
#include "hosts/cli/image_place.hpp"

#include <memory>

namespace tavelin::cli {

/// Opens the volume's part of an image for reading, without a lock, and replays the volume's
/// journal in memory; the image keeps every byte. recovered() tells whether one was waiting. Throws
/// NTFSError. One thread at a time.
[[nodiscard]] std::shared_ptr<JournaledDevice> openDevice(const ImagePlace& place);

} // namespace tavelin::cli
