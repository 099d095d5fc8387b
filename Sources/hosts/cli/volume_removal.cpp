#include "hosts/cli/volume_removal.hpp"

#include "hosts/cli/failure.hpp"
#include "hosts/cli/interruption.hpp"
#include "hosts/cli/text.hpp"
#include "platform/error_numbers.hpp"

namespace tavelin::cli {
namespace {

/// Levels of directories inside each other. A damaged volume's may be endless, and each level takes
/// a frame of the stack.
constexpr int kRemovalDepthMax = 2000;

void removeBelow(VolumeClient& volume, const ItemRef& directory, const std::string& path,
                 int depth) {
    throwIfInterrupted();
    if (depth > kRemovalDepthMax) {
        throw ItemFailure(escaped(path) + ": too many directories inside each other", path, kELOOP);
    }
    // The list is complete before the first removal, because removals move the entries of the
    // directory's index.
    for (const DirectoryEntry& entry : valueOf(volume.list(directory, false), path)) {
        const std::string below = joined(path, entry.name);
        const ItemRef item = valueOf(volume.lookup(directory, entry.name), below).item;
        if (entry.type == fskit::FSItemType::directory) {
            removeBelow(volume, item, below, depth + 1);
        }
        valueOf(volume.remove(item, directory, entry.name), below);
    }
}

} // namespace

void removeContents(VolumeClient& volume, const ItemRef& directory, const std::string& path) {
    removeBelow(volume, directory, path, 0);
}

} // namespace tavelin::cli
