// rm: the one command that destroys data. Every doubt is therefore an error.
#include "hosts/cli/arguments.hpp"
#include "hosts/cli/command_table.hpp"
#include "hosts/cli/report.hpp"
#include "hosts/cli/text.hpp"
#include "platform/error_numbers.hpp"

#include <memory>

namespace tavelin::cli {
namespace {

using fskit::FSItemType;

struct RemoveCommand {
    VolumeArguments volume;
    std::vector<std::string> paths;
    bool recursive = false;
    bool force = false;
};

/// Levels of directories inside each other. A damaged volume's may be endless, and each level takes
/// a frame of the stack.
constexpr int kRemovalDepthMax = 2000;

/// Removes everything in a directory, depth first.
void empty(VolumeClient& volume, const ItemRef& directory, const std::string& path, int depth) {
    throwIfInterrupted();
    if (depth > kRemovalDepthMax) {
        throw ItemFailure(escaped(path) + ": too many directories inside each other", path, kELOOP);
    }
    // The list is complete before the first removal, because removals move the entries of the
    // directory's index. Links are removed and never followed.
    for (const DirectoryEntry& entry : valueOf(volume.list(directory, false), path)) {
        const std::string below = joined(path, entry.name);
        const ItemRef item = valueOf(volume.lookup(directory, entry.name), below).item;
        if (entry.type == FSItemType::directory) {
            empty(volume, item, below, depth + 1);
        }
        valueOf(volume.remove(item, directory, entry.name), below);
    }
}

void removeOne(VolumeClient& volume, const std::string& path, const RemoveCommand& command) {
    auto place = locate(volume, path);
    // locate() answers kEINVAL for these paths. Removing the directory they lead to would surprise.
    if (!place && numberOf(place.error()) == kEINVAL) {
        throw ItemFailure(escaped(path) + ": the root directory, or one named by \"..\", is not "
                                          "removed: name what is in it",
                          path, kEINVAL);
    }
    if (!place && numberOf(place.error()) == kENOENT && command.force) {
        return;
    }
    const Location at = valueOf(std::move(place), path);
    auto found = volume.lookup(at.directory, at.name);
    if (!found && numberOf(found.error()) == kENOENT && command.force) {
        return;
    }
    const Found item = valueOf(std::move(found), path);
    if (item.attributes.type() == FSItemType::directory) {
        if (!command.recursive) {
            throw ItemFailure(escaped(path) + ": is a directory: 'tavelin rm -r' removes it with "
                                              "its contents",
                              path, kEISDIR);
        }
        if (item.item == volume.root()) { // only on a damaged volume
            throw ItemFailure(escaped(path) + ": the root directory is not removed", path, kEINVAL);
        }
        empty(volume, item.item, path, 0);
    }
    valueOf(volume.remove(item.item, at.directory, at.name), path);
}

void runRemove(const RemoveCommand& command) {
    withVolume(command.volume, Access::change, [&](Session& session) {
        forEachPath(command.paths,
                    [&](const std::string& path) { removeOne(session.volume(), path, command); });
    });
}

} // namespace

void defineRemove(CLI::App& command) {
    const auto arguments = std::make_shared<RemoveCommand>();
    addVolume(command, arguments->volume);
    addPaths(command, "PATH", arguments->paths, 1, "What to remove; of links, the link itself");
    addFlag(command, "-r", arguments->recursive, "Directories as well, with all that is in them");
    addFlag(command, "-f", arguments->force, "Do not mind what is not there");
    setWork(command, [arguments] { runRemove(*arguments); });
}

} // namespace tavelin::cli
