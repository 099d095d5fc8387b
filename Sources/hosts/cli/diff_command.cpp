// diff: whether a tree of the volume and one of the host are the same.
#include "hosts/cli/arguments.hpp"
#include "hosts/cli/command_table.hpp"
#include "hosts/cli/copy/content_comparison.hpp"
#include "hosts/cli/report.hpp"
#include "hosts/cli/terminal.hpp"
#include "hosts/cli/text.hpp"
#include "hosts/cli/tree_visit.hpp"
#include "platform/file_descriptor.hpp"

#include <fmt/format.h>

#include <fcntl.h>
#include <filesystem>
#include <map>
#include <memory>
#include <set>

namespace tavelin::cli {
namespace {

namespace fs = std::filesystem;
using fskit::FSItemType;

struct DiffCommand {
    VolumeArguments volume;
    std::string path;
    std::string directory;
    bool quick = false;
    bool json = false;
};

/// The type that a file of the host would have on the volume.
FSItemType typeOf(fs::file_type type) {
    switch (type) {
    case fs::file_type::directory:
        return FSItemType::directory;
    case fs::file_type::symlink:
        return FSItemType::symlink;
    case fs::file_type::regular:
        return FSItemType::file;
    default:
        return FSItemType::unknown;
    }
}

class Differ {
  public:
    Differ(VolumeClient& volume, const DiffCommand& command)
        : volume_(volume), command_(command), contents_(volume) {}

    /// Compares two directories, which results call `path`.
    void compareDirectories(const ItemRef& directory, const std::string& path,
                            const fs::path& host) {
        // A damaged volume may have directories that contain themselves.
        if (!entered_.insert(valueOf(volume_.attributes(directory), path).fileID()).second) {
            return;
        }
        std::map<std::string, fs::directory_entry> theirs;
        for (const auto& entry : fs::directory_iterator(host)) {
            theirs.emplace(entry.path().filename().string(), entry);
        }
        forEachEntry(volume_, directory, path, [&](const DirectoryEntry& entry) {
            const std::string name = joined(path, entry.name);
            const auto other = theirs.find(entry.name);
            if (other == theirs.end()) {
                tell(name, "only-on-volume", "is only on the volume");
                return;
            }
            try {
                compare(directory, entry, name, other->second);
            } catch (const ItemFailure& failure) {
                tellFailure(failure);
                same_ = false;
            }
            theirs.erase(other);
        });
        for (const auto& [name, entry] : theirs) {
            tell(joined(path, name), "only-on-host", "is only on this system");
        }
    }

    [[nodiscard]] bool areSame() const noexcept { return same_; }

  private:
    void compare(const ItemRef& directory, const DirectoryEntry& entry, const std::string& path,
                 const fs::directory_entry& other) {
        if (typeOf(other.symlink_status().type()) != entry.type) {
            tell(path, "type", "are of different types");
            return;
        }
        const Found found = valueOf(volume_.lookup(directory, entry.name), path);
        if (entry.type == FSItemType::directory) {
            compareDirectories(found.item, path, other.path());
        } else if (entry.type == FSItemType::symlink) {
            const std::string target = valueOf(volume_.readSymbolicLink(found.item), path);
            const std::string there = fs::read_symlink(other.path()).string();
            if (target != there && shownTarget(target, found.attributes) != there) {
                tell(path, "target", "point to different places");
            }
        } else if (found.attributes.size() != other.file_size()) {
            tell(path, "size", "have different sizes");
        } else if (!command_.quick && !isSameContent(found, path, other.path())) {
            tell(path, "content", "have different contents");
        }
    }

    bool isSameContent(const Found& found, const std::string& path, const fs::path& host) {
        const FileDescriptor file(host.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
        if (!file) {
            throwHostError(host.string());
        }
        return contents_.isSame(found, path, file, host.string());
    }

    void tell(const std::string& path, std::string_view kind, std::string_view text) {
        same_ = false;
        if (command_.json) {
            addItem(JSONObject().add("path", rooted(path)).add("difference", kind));
        } else {
            print(fmt::format("{}: {}\n", shown(path), text));
        }
    }

    VolumeClient& volume_;
    const DiffCommand& command_;
    ContentComparison contents_;
    std::set<fskit::FSItemID> entered_;
    bool same_ = true;
};

void runDiff(const DiffCommand& command) {
    if (!fs::is_directory(command.directory)) {
        throw Failure(escaped(command.directory) + ": no such directory on this system");
    }
    withVolume(command.volume, Access::read, [&](Session& session) {
        const Found found = valueOf(resolve(session.volume(), command.path), command.path);
        if (found.attributes.type() != FSItemType::directory) {
            throw Failure(escaped(command.path) + ": no directory on the volume");
        }
        Differ differ(session.volume(), command);
        try {
            differ.compareDirectories(found.item, "", command.directory);
        } catch (const fs::filesystem_error& error) {
            throw Failure(
                fmt::format("{}: {}", escaped(error.path1().string()), error.code().message()));
        }
        flushOutput();
        if (!differ.areSame()) {
            throw Failure(""); // the differences are the answer
        }
    });
}

} // namespace

void defineDiff(CLI::App& command) {
    const auto arguments = std::make_shared<DiffCommand>();
    addVolume(command, arguments->volume);
    addArgument(command, "PATH", arguments->path, "A directory on the volume");
    addArgument(command, "DIR", arguments->directory, "The directory of this system to compare");
    addFlag(command, "--quick", arguments->quick, "Names, types and sizes; no contents");
    addJSON(command, arguments->json);
    setWork(command, [arguments] { runDiff(*arguments); });
}

} // namespace tavelin::cli
