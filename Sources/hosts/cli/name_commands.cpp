// mkdir, mv, ln: names on the volume.
#include "hosts/cli/arguments.hpp"
#include "hosts/cli/command_table.hpp"
#include "hosts/cli/report.hpp"
#include "hosts/cli/text.hpp"
#include "platform/assert.hpp"
#include "platform/error_numbers.hpp"

#include <memory>
#include <optional>
#include <sstream>
#include <utility>

namespace tavelin::cli {
namespace {

using fskit::FSItemType;

struct NameCommand {
    VolumeArguments volume;
    std::vector<std::string> paths;
    std::optional<std::string> directory; ///< of -t: every path is a source then
    bool replace = false;
    bool parents = false;
    bool symbolic = false;
};

/// The place of a new item. Throws Failure when the directory above it is missing, and says so: the
/// error number alone would read as if the item itself were missing.
Location newPlace(VolumeClient& volume, const std::string& path) {
    auto place = locate(volume, path);
    if (!place) {
        const bool missing = numberOf(place.error()) == kENOENT;
        if (!missing) {
            throwVolumeError(path, place.error());
        }
        throw ItemFailure(escaped(path) + ": the directory above it is missing: 'tavelin mkdir "
                                          "-p' makes it",
                          path, kENOENT);
    }
    return std::move(place).get();
}

// ---- mkdir -------------------------------------------------------------------------------------

/// Makes the missing directories of a path, from the root downwards. Existing ones are no error.
void makeWithParents(VolumeClient& volume, const std::string& path) {
    for (std::size_t end = 0; end < path.size();) {
        end = std::min(path.find('/', end + 1), path.size());
        const std::string above = path.substr(0, end);
        const auto there = resolve(volume, above);
        if (there && there->attributes.type() != FSItemType::directory) {
            throwItemError(above, kENOTDIR);
        }
        if (!there && numberOf(there.error()) != kENOENT) {
            throwVolumeError(above, there.error());
        }
        if (!there) {
            const Location place = newPlace(volume, above);
            valueOf(volume.create(place.directory, place.name, FSItemType::directory), above);
        }
    }
}

void runMkdir(const NameCommand& command) {
    withVolume(command.volume, Access::change, [&](Session& session) {
        forEachPath(command.paths, [&](const std::string& path) {
            if (command.parents) {
                makeWithParents(session.volume(), path);
                return;
            }
            const Location place = newPlace(session.volume(), path);
            valueOf(session.volume().create(place.directory, place.name, FSItemType::directory),
                    path);
        });
    });
}

// ---- mv ----------------------------------------------------------------------------------------

/// Whether a path is below a directory, by their texts alone. Only explains an error that the
/// volume has already answered, so links and ".." need not be resolved.
bool isBelow(const std::string& path, const std::string& directory) {
    const auto plain = [](const std::string& text) {
        std::string result;
        std::istringstream components(text);
        for (std::string component; std::getline(components, component, '/');) {
            if (!component.empty() && component != ".") {
                result += component + "/";
            }
        }
        return result;
    };
    return plain(path).starts_with(plain(directory));
}

void moveOne(VolumeClient& volume, const std::string& source, const std::string& target,
             bool mayReplace) {
    const Location from = valueOf(locate(volume, source), source);
    const Found moved = valueOf(volume.lookup(from.directory, from.name), source);

    // As mv(1): an existing directory is moved into. A directory that is the source itself is a new
    // name for it, which allows a change of case.
    Location to;
    auto directory = resolve(volume, target);
    const bool into = directory && directory->attributes.type() == FSItemType::directory &&
                      !(directory->item == moved.item);
    if (into) {
        to = {std::move(directory->item), from.name};
    } else {
        if (target.ends_with('/') && moved.attributes.type() != FSItemType::directory) {
            throw ItemFailure(escaped(target) + ": no such directory: 'tavelin mkdir' makes it",
                              target, kENOENT);
        }
        to = newPlace(volume, target);
    }
    ItemRef over;
    if (auto there = volume.lookup(to.directory, to.name)) {
        if (there->item == moved.item && to.name == from.name && to.directory == from.directory) {
            throw ItemFailure(escaped(source) + ": is there already", source, kEEXIST);
        }
        // Lookup ignores case. When it finds the source itself, only the case changes and nothing
        // is replaced.
        over = there->item == moved.item ? ItemRef() : std::move(there->item);
        if (over && !mayReplace) {
            const std::string taken = into ? joined(target, to.name) : target;
            throw ItemFailure(escaped(taken) + ": is there already: --replace replaces it", taken,
                              kEEXIST);
        }
    }
    const auto renamed =
        volume.rename(moved.item, from.directory, from.name, to.directory, to.name, over);
    if (renamed) {
        return;
    }
    if (numberOf(renamed.error()) == kEINVAL && isBelow(target, source)) {
        throw ItemFailure(escaped(source) + ": a directory cannot be moved into itself", source,
                          kEINVAL);
    }
    throwVolumeError(target, renamed.error());
}

void runMove(NameCommand& command) {
    if (!command.directory && command.paths.size() < 2) {
        throw Failure("say what to move, and where to; see 'tavelin mv --help'",
                      ExitStatus::wrongUsage);
    }
    const bool intoDirectory = command.directory || command.paths.size() > 2;
    TAVELIN_ASSERT(!command.paths.empty());
    const std::string target = command.directory.value_or(command.paths.back());
    if (!command.directory) {
        command.paths.pop_back();
    }
    withVolume(command.volume, Access::change, [&](Session& session) {
        // Checked before the first move: with a wrong target nothing at all is moved.
        if (intoDirectory) {
            const Found there = valueOf(resolve(session.volume(), target), target);
            if (there.attributes.type() != FSItemType::directory) {
                throwItemError(target, kENOTDIR);
            }
        }
        forEachPath(command.paths, [&](const std::string& source) {
            if (lastComponent(source).empty()) {
                throw ItemFailure("the root directory cannot be moved", source, kEINVAL);
            }
            moveOne(session.volume(), source, target, command.replace);
        });
    });
}

// ---- ln ----------------------------------------------------------------------------------------

void runLink(const NameCommand& command) {
    if (!command.symbolic) {
        throw Failure("hard links are not offered: 'tavelin ln -s' makes symbolic ones",
                      ExitStatus::wrongUsage);
    }
    withVolume(command.volume, Access::change, [&](Session& session) {
        const std::string& target = command.paths.front();
        const std::string& path = command.paths.back();
        Location place;
        auto there = resolve(session.volume(), path);
        if (there && there->attributes.type() == FSItemType::directory) {
            // As ln(1): in a directory the link has its target's last name.
            place = {std::move(there->item), lastComponent(target)};
        } else {
            place = newPlace(session.volume(), path);
        }
        valueOf(session.volume().createSymbolicLink(place.directory, place.name, target), path);
    });
}

} // namespace

void defineMkdir(CLI::App& command) {
    const auto arguments = std::make_shared<NameCommand>();
    addVolume(command, arguments->volume);
    addPaths(command, "PATH", arguments->paths, 1, "Directories to make");
    addFlag(command, "-p", arguments->parents,
            "Also what is missing above them; fine when they are there already");
    setWork(command, [arguments] { runMkdir(*arguments); });
}

void defineMove(CLI::App& command) {
    const auto arguments = std::make_shared<NameCommand>();
    addVolume(command, arguments->volume);
    addPaths(command, "PATH", arguments->paths, 1,
             "What to move, last the new name or the directory to move into");
    addText(command, "-t,--target-directory", arguments->directory, "DIR",
            "Move every PATH into this directory");
    addFlag(command, "--replace", arguments->replace, "A file that has the new name is replaced");
    setWork(command, [arguments] { runMove(*arguments); });
}

void defineLink(CLI::App& command) {
    const auto arguments = std::make_shared<NameCommand>();
    addVolume(command, arguments->volume);
    addPaths(command, "PATH", arguments->paths, 2,
             "What the link points to, as written, and the link", 2);
    addFlag(command, "-s", arguments->symbolic, "A symbolic link (the only kind)");
    setWork(command, [arguments] { runLink(*arguments); });
}

} // namespace tavelin::cli
