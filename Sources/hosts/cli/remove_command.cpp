// rm: the one command that destroys data. Every doubt is therefore an error.
#include "hosts/cli/arguments.hpp"
#include "hosts/cli/command_table.hpp"
#include "hosts/cli/named_stream.hpp"
#include "hosts/cli/report.hpp"
#include "hosts/cli/text.hpp"
#include "hosts/cli/volume_removal.hpp"
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
    if (!found && numberOf(found.error()) == kENOENT) {
        if (const auto owner = ownerOfStream(volume, path)) {
            const auto removed = volume.removeXattr(owner->item, splitStream(path)->second);
            if (!removed && (numberOf(removed.error()) != kENOATTR || !command.force)) {
                throwVolumeError(path, removed.error());
            }
            return;
        }
    }
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
        removeContents(volume, item.item, path);
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
    addPaths(command, "PATH", arguments->paths, 1,
             "What to remove: files, links themselves, streams as \"file:stream\"");
    addFlag(command, "-r", arguments->recursive, "Directories as well, with all that is in them");
    addFlag(command, "-f", arguments->force, "Do not mind what is not there");
    setWork(command, [arguments] { runRemove(*arguments); });
}

} // namespace tavelin::cli
