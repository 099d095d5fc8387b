// diff: whether a tree of the volume and one of the host or of another volume are the same.
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
#include <optional>
#include <set>
#include <span>
#include <utility>

namespace tavelin::cli {
namespace {

namespace fs = std::filesystem;
using fskit::FSItemType;

struct DiffCommand {
    VolumeArguments volume;
    std::string path;
    std::optional<std::string> directory;
    std::optional<std::string> other; ///< the image that `directory` is in; absent for the host
    bool quick = false;
    bool json = false;
};

/// Whether it is a device, a pipe or a socket, which has no bytes.
bool isSpecial(FSItemType type) {
    return type != FSItemType::unknown && type != FSItemType::file &&
           type != FSItemType::directory && type != FSItemType::symlink;
}

/// What is only on one side, for programs and for people.
struct OnlyWords {
    std::string_view kind;
    std::string_view text;
};

/// The host as the side that the volume is compared with.
class HostSide {
  public:
    using Directory = fs::path;
    using Item = fs::directory_entry;

    static constexpr OnlyWords kOnlyVolume{"only-on-volume", "is only on the volume"};
    static constexpr OnlyWords kOnlyHere{"only-on-host", "is only on this system"};

    [[nodiscard]] static std::map<std::string, Item> list(const Directory& directory) {
        std::map<std::string, Item> items;
        for (const auto& entry : fs::directory_iterator(directory)) {
            items.emplace(entry.path().filename().string(), entry);
        }
        return items;
    }

    /// The type that an item would have on the volume.
    [[nodiscard]] static FSItemType type(const Item& item) {
        switch (item.symlink_status().type()) {
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

    [[nodiscard]] static Directory directory(const Item& item) { return item.path(); }
    [[nodiscard]] static std::string target(const Item& item) {
        return fs::read_symlink(item.path()).string();
    }
    [[nodiscard]] static std::uint64_t size(const Item& item) { return item.file_size(); }
    /// Its devices have a type that no item of a volume has.
    [[nodiscard]] static std::uint64_t device(const Item& /*item*/) { return 0; }

    [[nodiscard]] static bool isSameContent(ContentComparison& contents, const Found& found,
                                            const std::string& path, const Item& item) {
        const FileDescriptor file(item.path().c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
        if (!file) {
            throwHostError(item.path().string());
        }
        return contents.isSame(found, path, file, item.path().string());
    }
};

/// A volume as the other side: that of another image, or the same one.
class VolumeSide {
  public:
    struct Directory {
        ItemRef item;
        std::string path; ///< in messages
    };
    /// An entry of a Directory, which outlives it.
    struct Item {
        const ItemRef* directory;
        std::string name;
        FSItemType itsType;
        std::string path;
    };

    static constexpr OnlyWords kOnlyVolume{"only-on-volume", "is only in the first directory"};
    static constexpr OnlyWords kOnlyHere{"only-on-other", "is only in the second directory"};

    /// The volume outlives the object. Messages name its items by paths that begin with `prefix`.
    VolumeSide(VolumeClient& volume, std::string prefix)
        : volume_(volume), prefix_(std::move(prefix)) {}

    /// The directory at a path of the volume. Throws Failure where there is none.
    [[nodiscard]] Directory at(const std::string& path) const {
        const std::string name = prefix_ + path;
        Found found = valueOf(resolve(volume_, path), name);
        if (found.attributes.type() != FSItemType::directory) {
            throw Failure(escaped(name) + ": no directory on the volume");
        }
        return {std::move(found.item), name};
    }

    [[nodiscard]] std::map<std::string, Item> list(const Directory& directory) const {
        std::map<std::string, Item> items;
        forEachEntry(volume_, directory.item, directory.path, [&](const DirectoryEntry& entry) {
            items.emplace(entry.name, Item{&directory.item, entry.name, entry.type,
                                           joined(directory.path, entry.name)});
        });
        return items;
    }

    [[nodiscard]] static FSItemType type(const Item& item) { return item.itsType; }
    [[nodiscard]] Directory directory(const Item& item) const {
        return {find(item).item, item.path};
    }
    [[nodiscard]] std::string target(const Item& item) const {
        const Found found = find(item);
        return shownTarget(valueOf(volume_.readSymbolicLink(found.item), item.path),
                           found.attributes);
    }
    [[nodiscard]] std::uint64_t size(const Item& item) const {
        return find(item).attributes.size();
    }
    [[nodiscard]] std::uint64_t device(const Item& item) const {
        return find(item).attributes.native().device;
    }

    [[nodiscard]] bool isSameContent(ContentComparison& contents, const Found& found,
                                     const std::string& path, const Item& item) const {
        const Found there = find(item);
        return contents.isSame(found, path, [&](std::uint64_t offset, std::span<std::byte> into) {
            return valueOf(volume_.read(there.item, offset, into), item.path, there.attributes);
        });
    }

  private:
    [[nodiscard]] Found find(const Item& item) const {
        return valueOf(volume_.lookup(*item.directory, item.name), item.path);
    }

    VolumeClient& volume_;
    const std::string prefix_;
};

/// `Side` is HostSide or VolumeSide. All arguments outlive the object.
template<typename Side>
class Differ {
  public:
    Differ(VolumeClient& volume, const Side& other, const DiffCommand& command)
        : volume_(volume), other_(other), command_(command), contents_(volume) {}

    /// Compares two directories, which results call `path`.
    void compareDirectories(const ItemRef& directory, const std::string& path,
                            const typename Side::Directory& other) {
        // A damaged volume may have directories that contain themselves.
        if (!entered_.insert(valueOf(volume_.attributes(directory), path).fileID()).second) {
            return;
        }
        auto theirs = other_.list(other);
        forEachEntry(volume_, directory, path, [&](const DirectoryEntry& entry) {
            const std::string name = joined(path, entry.name);
            const auto counterpart = theirs.extract(entry.name);
            if (!counterpart) {
                tell(name, Side::kOnlyVolume.kind, Side::kOnlyVolume.text);
                return;
            }
            try {
                compare(directory, entry, name, counterpart.mapped());
            } catch (const ItemFailure& failure) {
                tellFailure(failure);
                same_ = false;
            }
        });
        for (const auto& [name, item] : theirs) {
            tell(joined(path, name), Side::kOnlyHere.kind, Side::kOnlyHere.text);
        }
    }

    [[nodiscard]] bool areSame() const noexcept { return same_; }

  private:
    void compare(const ItemRef& directory, const DirectoryEntry& entry, const std::string& path,
                 const typename Side::Item& other) {
        if (other_.type(other) != entry.type) {
            tell(path, "type", "are of different types");
            return;
        }
        const Found found = valueOf(volume_.lookup(directory, entry.name), path);
        if (entry.type == FSItemType::directory) {
            compareDirectories(found.item, path, other_.directory(other));
        } else if (entry.type == FSItemType::symlink) {
            const std::string target = valueOf(volume_.readSymbolicLink(found.item), path);
            const std::string there = other_.target(other);
            if (target != there && shownTarget(target, found.attributes) != there) {
                tell(path, "target", "point to different places");
            }
        } else if (isSpecial(entry.type)) {
            if (found.attributes.native().device != other_.device(other)) {
                tell(path, "type", "are of different types");
            }
        } else if (found.attributes.size() != other_.size(other)) {
            tell(path, "size", "have different sizes");
        } else if (!command_.quick && !other_.isSameContent(contents_, found, path, other)) {
            tell(path, "content", "have different contents");
        }
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
    const Side& other_;
    const DiffCommand& command_;
    ContentComparison contents_;
    std::set<fskit::FSItemID> entered_;
    bool same_ = true;
};

/// Compares the command's directory with `theirs`. Answers whether they are the same.
template<typename Side>
bool areSame(const DiffCommand& command, VolumeClient& volume, const Side& other,
             const typename Side::Directory& theirs) {
    const Found found = valueOf(resolve(volume, command.path), command.path);
    if (found.attributes.type() != FSItemType::directory) {
        throw Failure(escaped(command.path) + ": no directory on the volume");
    }
    Differ<Side> differ(volume, other, command);
    try {
        differ.compareDirectories(found.item, "", theirs);
    } catch (const fs::filesystem_error& error) {
        throw Failure(
            fmt::format("{}: {}", escaped(error.path1().string()), error.code().message()));
    }
    flushOutput();
    return differ.areSame();
}

bool areVolumesSame(const DiffCommand& command, Session& session) {
    VolumeArguments arguments = command.volume;
    arguments.image = *command.other;
    arguments.offset.reset(); // where in IMAGE
    const ImagePlace place = findVolume(arguments.image, arguments.offset);
    const std::string theirs = command.directory.value_or(rooted(command.path));
    std::error_code missing; // opening it tells why
    if (place.offset == session.place().offset &&
        fs::equivalent(place.path, session.place().path, missing)) {
        // Opened once, as it may be open for writing in a shell.
        const VolumeSide side(session.volume(), "");
        return areSame(command, session.volume(), side, side.at(theirs));
    }
    Session other(arguments, Access::read);
    bool same = false;
    { // gives all items back before the volume is closed
        const VolumeSide side(other.volume(), arguments.image + ": ");
        same = areSame(command, session.volume(), side, side.at(theirs));
    }
    other.close();
    return same;
}

void runDiff(const DiffCommand& command) {
    if (!command.other && !command.directory) {
        throw Failure("DIR is required, or --with another image; see 'tavelin diff --help'",
                      ExitStatus::wrongUsage);
    }
    if (!command.other && !fs::is_directory(*command.directory)) {
        throw Failure(escaped(*command.directory) + ": no such directory on this system");
    }
    withVolume(command.volume, Access::read, [&](Session& session) {
        const bool same = command.other
                              ? areVolumesSame(command, session)
                              : areSame(command, session.volume(), HostSide(), *command.directory);
        if (!same) {
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
    addText(command, "--with", arguments->other, "OTHER",
            "DIR is on the volume in this image, and is PATH when it is left out");
    addFlag(command, "--quick", arguments->quick, "Names, types and sizes; no contents");
    addJSON(command, arguments->json);
    setWork(command, [arguments] { runDiff(*arguments); });
}

} // namespace tavelin::cli
