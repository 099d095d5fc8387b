// get and put: where to, then the work of TreeGetter and TreePutter.
#include "hosts/cli/arguments.hpp"
#include "hosts/cli/command_table.hpp"
#include "hosts/cli/copy/host_directory.hpp"
#include "hosts/cli/copy/tree_getter.hpp"
#include "hosts/cli/copy/tree_putter.hpp"
#include "hosts/cli/named_stream.hpp"
#include "hosts/cli/report.hpp"
#include "hosts/cli/text.hpp"
#include "hosts/cli/tree_visit.hpp"
#include "platform/assert.hpp"
#include "platform/error_numbers.hpp"

#include <fmt/format.h>

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>

namespace tavelin::cli {
namespace {

using fskit::FSItemType;

struct CopyCommand {
    VolumeArguments volume;
    std::vector<std::string> paths;
    std::optional<std::string> directory; ///< of -t: every path is a source then
    bool replace = false;
    bool noStreams = false;
    bool quiet = false;
    bool json = false;
};

/// The settings of a run. Throws Failure when there is no image.
CopySettings settings(const CopyCommand& command) {
    CopySettings result;
    result.streams = !command.noStreams;
    result.quiet = command.quiet || command.json;
    result.hardLinks = true;
    result.image = imageStatus(command.volume.image, command.volume.offset);
    return result;
}

struct FromTo {
    std::vector<std::string> sources;
    std::string target;
    bool mustBeDirectory; ///< the target: several items, or the user said so
};

/// Splits the paths: the last of several is the target, and a single one goes to the usual target.
FromTo apart(const CopyCommand& command, const std::string& usualTarget) {
    std::vector<std::string> paths = command.paths;
    TAVELIN_ASSERT(!paths.empty()); // the parser asks for one
    if (command.directory) {
        return {std::move(paths), *command.directory, true};
    }
    if (paths.size() == 1) {
        return {std::move(paths), usualTarget, true};
    }
    std::string target = std::move(paths.back());
    paths.pop_back();
    const bool several = paths.size() > 1 || target.ends_with('/');
    return {std::move(paths), std::move(target), several};
}

/// Whether the last of two paths may have been meant as a source: a shell's pattern with two
/// matches reads like a source and a target. A path that begins with "/" or "." is on the host.
bool isPlainName(const std::string& path) {
    return !path.empty() && path.front() != '/' && path.front() != '.';
}

[[noreturn]] void throwFileInTheWay(const std::string& target) {
    throw Failure(escaped(target) + ": is there already: --replace replaces it, -t names the "
                                    "directory to copy into");
}

std::string counted(std::uint64_t count, std::string_view one, std::string_view several) {
    return fmt::format("{} {}", count, count == 1 ? one : several);
}

/// Says what was copied. Called once all of it is on the medium.
void printReport(const CopyReport& report, const CopyCommand& command) {
    if (command.json) {
        addItem(JSONObject()
                    .add("files", report.files)
                    .add("directories", report.directories)
                    .add("links", report.links)
                    .add("streams", report.streams)
                    .add("hardLinks", report.hardLinks)
                    .add("bytes", report.bytes));
    } else if (isOutputTerminal() && !command.quiet) {
        print(fmt::format(
            "{} ({}), {}, {}, {}\n", counted(report.files, "file", "files"),
            humanSize(report.bytes), counted(report.directories, "directory", "directories"),
            counted(report.links, "link", "links"), counted(report.streams, "stream", "streams")));
    }
}

// ---- get ---------------------------------------------------------------------------------------

/// A place on the host: an opened directory, and a name in it unless the directory itself is meant.
struct HostPlace {
    FileDescriptor directory;
    std::string name;
};

FileDescriptor openDirectory(const std::string& path) {
    FileDescriptor directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory) {
        throw Failure(explainHost(path, errno));
    }
    return directory;
}

/// Opens the target on the host, as cp(1) takes it: an existing directory is copied into, and any
/// other name is the new name of a single item.
HostPlace hostPlace(VolumeClient& volume, const FromTo& paths, bool mayReplace) {
    const std::string& target = paths.target;
    if (std::filesystem::is_directory(target)) {
        return {openDirectory(target), {}};
    }
    if (paths.mustBeDirectory) {
        throw Failure(escaped(target) + ": no such directory: make it first");
    }
    struct ::stat status {};
    if (!mayReplace && lstat(target.c_str(), &status) == 0) {
        throwFileInTheWay(target);
    }
    if (!mayReplace && isPlainName(target) && target != paths.sources.front() &&
        resolve(volume, target, LastLink::keep)) {
        throw Failure(
            fmt::format("{0}: is on the volume, too: '-t .' copies both here, and \"./{0}\""
                        " is the new name of one",
                        escaped(target)));
    }
    const std::filesystem::path path(target);
    return {openDirectory(path.has_parent_path() ? path.parent_path().string() : "."),
            path.filename().string()};
}

void getOne(VolumeClient& volume, TreeGetter& getter, const std::string& path,
            const HostPlace& place) {
    const Named named = resolveNamed(volume, path, LastLink::keep);
    const Found& found = named.found;
    const std::string name = place.name.empty() ? lastComponent(path) : place.name;
    if (named.stream) {
        getter.getStream(readStream(volume, named, path), path, place.directory.get(), name);
        return;
    }
    const bool isRoot = found.item == volume.root();
    // The root has no name that its copy could have.
    if (isRoot && place.name.empty()) {
        getter.getContents(found.item, path, place.directory.get());
        return;
    }
    getter.get(found, path, place.directory.get(), name);
}

/// Bytes of the files below paths of the volume, for the progress bar. What cannot be read counts
/// as 0: copying reports the error.
class BytesOnVolume {
  public:
    explicit BytesOnVolume(VolumeClient& volume) : volume_(volume) {}

    std::uint64_t of(const std::string& path) {
        const auto found = resolve(volume_, path, LastLink::keep);
        if (!found) {
            return 0;
        }
        if (found->attributes.type() != FSItemType::directory) {
            return found->attributes.size();
        }
        sum_ = 0;
        entered_.clear();
        addBelow(*found, 0);
        return sum_;
    }

  private:
    void addBelow(const Found& directory, int depth) {
        // A damaged volume may have directories that contain themselves.
        if (depth >= kTreeDepthMax || !entered_.insert(directory.attributes.fileID()).second) {
            return;
        }
        try {
            forEachEntry(volume_, directory.item, "", [&](const DirectoryEntry& entry) {
                count_.add();
                if (entry.type == FSItemType::directory) {
                    if (const auto below = volume_.lookup(directory.item, entry.name)) {
                        addBelow(*below, depth + 1);
                    }
                } else if (entry.type == FSItemType::file && entry.attributes) {
                    sum_ += entry.attributes->size();
                }
            });
        } catch (const ItemFailure&) { // copying reports it
            return;
        }
    }

    VolumeClient& volume_;
    ItemCount count_;
    std::set<fskit::FSItemID> entered_;
    std::uint64_t sum_ = 0;
};

void runGet(const CopyCommand& command) {
    // Reading alone would not ask for this, but half-written files on the host must be removed.
    takeInterruptions();
    withVolume(command.volume, Access::read, [&](Session& session) {
        const FromTo paths = apart(command, ".");
        const HostPlace place = hostPlace(session.volume(), paths, command.replace);
        CopyRun run(settings(command));
        TreeGetter getter(session.volume(), run);
        if (run.bar.isShown()) {
            BytesOnVolume bytes(session.volume());
            for (const std::string& path : paths.sources) {
                run.bar.expect(bytes.of(path));
            }
        }
        for (const std::string& path : paths.sources) {
            try {
                getOne(session.volume(), getter, path, place);
            } catch (const ItemFailure& failure) { // there is no such item; the others may be there
                run.problem(failure);
            }
        }
        syncHost(place.directory.get(), paths.target);
        run.end();
        printReport(run.report, command);
    });
}

// ---- put ---------------------------------------------------------------------------------------

/// A place on the volume, as above.
struct VolumePlace {
    ItemRef directory;
    std::string name;
    /// Of "file:stream": the stream goes to the item `directory`, whatever that is.
    std::optional<std::string> stream;
};

VolumePlace volumePlace(VolumeClient& volume, const FromTo& paths, bool mayReplace) {
    const std::string& target = paths.target;
    auto there = resolve(volume, target);
    if (there && there->attributes.type() == FSItemType::directory) {
        return {std::move(there->item), {}, {}};
    }
    if (auto owner = there ? std::nullopt : ownerOfStream(volume, target)) {
        std::string stream = splitStream(target)->second;
        if (!mayReplace && volume.xattrSize(owner->item, stream)) {
            throwFileInTheWay(target);
        }
        return {std::move(owner->item), {}, std::move(stream)};
    }
    if (!there && numberOf(there.error()) != kENOENT) {
        throw Failure(explain(target, there.error()));
    }
    if (paths.mustBeDirectory) {
        throwMissingTarget(target);
    }
    auto place = locate(volume, target);
    if (!place) {
        throw Failure(numberOf(place.error()) == kENOENT
                          ? escaped(target) + ": the directory for it is missing: 'tavelin mkdir "
                                              "-p' makes it"
                          : explain(target, place.error()));
    }
    // A link that leads nowhere is in the way, too.
    if (!mayReplace && volume.lookup(place->directory, place->name)) {
        throwFileInTheWay(target);
    }
    return {std::move(place->directory), std::move(place->name), {}};
}

/// Bytes to be copied from a path, for the progress bar. Unreadable items count as 0; copying them
/// reports the error.
std::uint64_t bytesBelow(const std::string& source) {
    namespace fs = std::filesystem;
    std::error_code ignored;
    if (!fs::is_directory(fs::symlink_status(source, ignored))) {
        const auto size = fs::file_size(source, ignored);
        return ignored ? 0 : size;
    }
    std::uint64_t sum = 0;
    fs::recursive_directory_iterator entry(source, fs::directory_options::skip_permission_denied,
                                           ignored);
    for (; !ignored && entry != fs::recursive_directory_iterator(); entry.increment(ignored)) {
        std::error_code unreadable;
        if (fs::is_regular_file(entry->symlink_status(unreadable))) {
            const auto size = entry->file_size(unreadable);
            sum += unreadable ? 0 : size;
        }
    }
    return sum;
}

void putOne(TreePutter& putter, const std::string& source, const VolumePlace& place) {
    if (place.stream) {
        putter.putAsStream(source, place.directory, *place.stream);
        return;
    }
    if (source == "-") {
        if (place.name.empty()) {
            throw Failure("name the file that standard input goes to", ExitStatus::wrongUsage);
        }
        putter.putStream(STDIN_FILENO, place.directory, place.name);
        return;
    }
    const std::string last = lastComponent(source);
    // These paths have no name of their own, so the entries of the directory are copied.
    const bool contents = last.empty() || last == "." || last == "..";
    if (contents && place.name.empty()) {
        putter.putContents({AT_FDCWD, source, source}, place.directory);
        return;
    }
    putter.put({AT_FDCWD, source, source}, place.directory, place.name.empty() ? last : place.name);
}

/// Refuses a target that is a source as well for all that can be told: two files of the host whose
/// names a shell's pattern has put there.
void refuseSecondSource(const FromTo& paths) {
    const std::string& source = paths.sources.front();
    struct ::stat status {};
    if (paths.sources.size() == 1 && source != "-" && source != paths.target &&
        lstat(paths.target.c_str(), &status) == 0 && !S_ISDIR(status.st_mode)) {
        throw Failure(fmt::format("{}: is a file of this system, too: '-t /' copies both into the "
                                  "root, --replace takes it for the new name of one",
                                  escaped(paths.target)));
    }
}

void runPut(const CopyCommand& command) {
    const FromTo paths = apart(command, usualDirectory());
    if (!paths.mustBeDirectory && !command.replace) {
        refuseSecondSource(paths);
    }
    // Before the image is opened, so that a mistyped source changes nothing.
    for (const std::string& source : paths.sources) {
        struct ::stat status {};
        if (source != "-" && lstat(source.c_str(), &status) != 0) {
            throw Failure(explainHost(source, errno), source, fromHost(errno));
        }
    }
    CopyRun run(settings(command));
    withVolume(command.volume, Access::change, [&](Session& session) {
        const VolumePlace place = volumePlace(session.volume(), paths, command.replace);
        if (run.bar.isShown()) {
            for (const std::string& source : paths.sources) {
                run.bar.expect(source == "-" ? 0 : bytesBelow(source));
            }
        }
        TreePutter putter(session.volume(), run);
        for (const std::string& source : paths.sources) {
            putOne(putter, source, place);
        }
        run.end();
    });
    // The volume is closed: only now is everything on the image's medium.
    printReport(run.report, command);
}

std::shared_ptr<CopyCommand> defineCopy(CLI::App& command, const std::string& what) {
    auto arguments = std::make_shared<CopyCommand>();
    addVolume(command, arguments->volume);
    addPaths(command, "PATH", arguments->paths, 1, what);
    addText(command, "-t,--target-directory", arguments->directory, "DIR",
            "Copy every PATH into this directory");
    addFlag(command, "--replace", arguments->replace, "The target may be a file, and is replaced");
    addFlag(command, "--no-streams", arguments->noStreams,
            "Leave named streams out; else they are \"user.\" attributes on the host");
    addFlag(command, "-q,--quiet", arguments->quiet, "No progress bar and no summary");
    addJSON(command, arguments->json);
    return arguments;
}

} // namespace

void defineGet(CLI::App& command) {
    const auto arguments =
        defineCopy(command, "What to copy; with more than one, the last one says where to");
    setWork(command, [arguments] { runGet(*arguments); });
}

void definePut(CLI::App& command) {
    const auto arguments = defineCopy(
        command, "What to copy, \"-\" for standard input; with more than one, the last one says "
                 "where to on the volume");
    setWork(command, [arguments] { runPut(*arguments); });
}

} // namespace tavelin::cli
