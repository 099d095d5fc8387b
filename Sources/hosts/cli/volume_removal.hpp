/// Removing whole trees from a volume.
#pragma once

#include "hosting/volume_client.hpp"

#include <string>

namespace tavelin::cli {

/// Removes everything in a directory of the volume, which messages call `path`, depth first. Links
/// are removed and never followed. Throws ItemFailure for the first item that cannot be removed,
/// and Interruption. One thread at a time.
void removeContents(VolumeClient& volume, const ItemRef& directory, const std::string& path);

} // namespace tavelin::cli
