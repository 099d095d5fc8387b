// ls and stat: names and attributes.
#include "core/reparse_tags.hpp"
#include "hosts/cli/arguments.hpp"
#include "hosts/cli/command_table.hpp"
#include "hosts/cli/item_text.hpp"
#include "hosts/cli/named_stream.hpp"
#include "hosts/cli/report.hpp"
#include "hosts/cli/terminal.hpp"
#include "hosts/cli/text.hpp"
#include "hosts/cli/tree_visit.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <set>

namespace tavelin::cli {
namespace {

using fskit::FSItemType;

struct ListCommand {
    VolumeArguments volume;
    std::vector<std::string> paths;
    bool longForm = false;
    bool recursive = false;
    bool all = false;
    bool humanSizes = false;
    bool byTime = false;
    bool bySize = false;
    bool reversed = false;
    bool directoriesThemselves = false;
    bool onePerLine = false; ///< always so; accepted as ls(1) has it
    bool slashes = false;
    bool streams = false;
    bool shortNames = false;
    bool json = false;

    /// Whether the entries are shown as they come.
    [[nodiscard]] bool isByName() const noexcept { return !byTime && !bySize && !reversed; }
};

/// The 8.3 alias of a name; empty where there is none, or where it cannot be read: an item is shown
/// without it rather than not at all.
std::string shortNameOf(VolumeClient& volume, const ItemRef& directory, const std::string& name) {
    const auto alias = volume.shortName(directory, name);
    return alias ? *alias : "";
}

/// The same of what a path names; empty for one that ends in no name, such as the root.
std::string shortNameOf(VolumeClient& volume, const std::string& path) {
    const auto place = locate(volume, path);
    return place ? shortNameOf(volume, place->directory, place->name) : "";
}

/// One run of `ls` over all its paths.
class Lister {
  public:
    Lister(VolumeClient& volume, const ListCommand& command) : volume_(volume), command_(command) {}

    void list(const std::string& path, bool titled) {
        const Named named = resolveNamed(
            volume_, path, command_.directoriesThemselves ? LastLink::keep : LastLink::follow);
        const Found& found = named.found;
        if (named.stream) {
            showStream(path, path, *named.stream, named.size);
            return;
        }
        if (found.attributes.type() != FSItemType::directory || command_.directoriesThemselves) {
            show(path, rooted(path), found.attributes, target(found.attributes, found.item, path),
                 command_.shortNames ? shortNameOf(volume_, path) : "");
            showStreams(path, path, found.item);
            return;
        }
        // Every path has its own sections, also where one path leads into another.
        seen_ = {found.attributes.fileID()};
        listDirectory(path, found.item, titled || command_.recursive);
    }

    /// Whether something below a path could not be listed, and has been told.
    [[nodiscard]] bool hasFailed() const noexcept { return failed_; }

  private:
    void listDirectory(const std::string& path, const ItemRef& directory, bool titled) {
        if (titled && !command_.json) {
            print(fmt::format("{}{}:\n", first_ ? "" : "\n", shown(path)));
        }
        first_ = false;
        std::vector<DirectoryEntry> entries; // those that are still needed
        ItemCount count(command_.json || command_.isByName());
        forEachEntry(volume_, directory, path, [&](const DirectoryEntry& entry) {
            if (!isShown(entry)) {
                return;
            }
            if (command_.isByName()) {
                showEntry(path, directory, entry);
            }
            count.add();
            if (!command_.isByName() ||
                (command_.recursive && entry.type == FSItemType::directory)) {
                entries.push_back(entry);
            }
        });
        count.clear();
        if (!command_.isByName()) {
            sort(entries);
            for (const DirectoryEntry& entry : entries) {
                showEntry(path, directory, entry);
            }
        }
        if (command_.recursive) {
            descend(path, directory, entries);
        }
    }

    void showEntry(const std::string& path, const ItemRef& directory, const DirectoryEntry& entry) {
        const std::string below = joined(path == "/" ? "" : path, entry.name);
        const fskit::FSItemAttributes attributes = attributesOf(entry);
        const bool wantsTarget =
            entry.type == FSItemType::symlink && (command_.longForm || command_.json);
        show(entry.name, rooted(below), attributes,
             wantsTarget ? linkTarget(directory, entry.name, attributes) : std::nullopt,
             command_.shortNames ? shortNameOf(volume_, directory, entry.name) : "");
        if (command_.streams) {
            showStreams(entry.name, below,
                        valueOf(volume_.lookup(directory, entry.name), below).item);
        }
    }

    void descend(const std::string& path, const ItemRef& directory,
                 const std::vector<DirectoryEntry>& entries) {
        for (const DirectoryEntry& entry : entries) {
            // A damaged volume may have directories that contain themselves. Each is listed once.
            if (entry.type != FSItemType::directory || !seen_.insert(entry.itemID).second) {
                continue;
            }
            const std::string below = joined(path == "/" ? "" : path, entry.name);
            // One directory that cannot be read does not hide the ones after it.
            try {
                listDirectory(below, valueOf(volume_.lookup(directory, entry.name), below).item,
                              true);
            } catch (const ItemFailure& failure) {
                tellFailure(failure);
                failed_ = true;
            }
        }
    }

    /// Brings entries, which are in the order of their names, into the one that was asked for.
    void sort(std::vector<DirectoryEntry>& entries) const {
        using Before = bool (*)(const DirectoryEntry&, const DirectoryEntry&);
        const auto by = [&](Before before) {
            std::stable_sort(entries.begin(), entries.end(), before);
        };
        if (command_.bySize) {
            by([](const auto& a, const auto& b) {
                return attributesOf(a).size() > attributesOf(b).size();
            });
        } else if (command_.byTime) {
            by([](const auto& a, const auto& b) {
                const std::timespec one = attributesOf(a).modifyTime();
                const std::timespec other = attributesOf(b).modifyTime();
                return std::pair(one.tv_sec, one.tv_nsec) > std::pair(other.tv_sec, other.tv_nsec);
            });
        }
        if (command_.reversed) {
            std::reverse(entries.begin(), entries.end());
        }
    }

    /// An entry whose attributes cannot be read is still listed, with its name and type.
    static fskit::FSItemAttributes attributesOf(const DirectoryEntry& entry) {
        fskit::FSItemAttributes attributes = entry.attributes.value_or(fskit::FSItemAttributes());
        attributes.setType(entry.type);
        return attributes;
    }

    [[nodiscard]] bool isShown(const DirectoryEntry& entry) const {
        const bool hidden = entry.attributes && isHidden(*entry.attributes);
        return command_.all || (!hidden && !entry.name.starts_with('.'));
    }

    void show(const std::string& name, const std::string& path,
              const fskit::FSItemAttributes& attributes, const std::optional<std::string>& target,
              const std::string& shortName) {
        if (command_.json) {
            addItem(itemObject(path, attributes, target, shortName));
            return;
        }
        const Colour colour = attributes.type() == FSItemType::directory ? Colour::directory
                              : attributes.type() == FSItemType::symlink ? Colour::link
                                                                         : Colour::plain;
        std::string line = painted(shown(name), colour);
        if (command_.slashes && attributes.type() == FSItemType::directory) {
            line += "/";
        }
        if (command_.shortNames) {
            line = fmt::format("{:<12}  {}", shown(shortName), line);
        }
        if (command_.longForm) {
            line =
                fmt::format("{} {:>14}  {}  {}{}", modeText(attributes.type(), attributes.mode()),
                            size(attributes), humanTime(attributes.modifyTime()), line,
                            target ? " -> " + shown(*target) : "");
            line += remarks(attributes);
        }
        print(line + "\n");
    }

    /// "  [deduplicated, hidden]": what neither type nor mode say.
    static std::string remarks(const fskit::FSItemAttributes& attributes) {
        std::vector<std::string> words = dosAttributeNames(attributes);
        if (const std::string_view kind = nativeKind(attributes); !kind.empty()) {
            words.emplace(words.begin(), kind);
        }
        return words.empty() ? "" : fmt::format("  [{}]", fmt::join(words, ", "));
    }

    /// With --streams: each stream of an item, as a path that other commands take. `name` and
    /// `path` are those of the item.
    void showStreams(const std::string& name, const std::string& path, const ItemRef& item) {
        if (!command_.streams) {
            return;
        }
        for (const std::string& stream : valueOf(volume_.listXattrs(item), path)) {
            showStream(fmt::format("{}:{}", name, stream), fmt::format("{}:{}", path, stream),
                       stream, valueOf(volume_.xattrSize(item, stream), path));
        }
    }

    void showStream(const std::string& name, const std::string& path, const std::string& stream,
                    std::uint64_t size) const {
        if (command_.json) {
            addItem(streamObject(path, stream, size));
            return;
        }
        const std::string bytes = command_.humanSizes ? humanSize(size) : std::to_string(size);
        print(
            (command_.longForm ? fmt::format("{:<10} {:>14}  {:19}  ", "stream", bytes, "") : "") +
            shown(name) + "\n");
    }

    [[nodiscard]] std::string size(const fskit::FSItemAttributes& attributes) const {
        if (isDevice(attributes.type())) {
            return deviceText(attributes.native().device);
        }
        return command_.humanSizes ? humanSize(attributes.size())
                                   : std::to_string(attributes.size());
    }

    /// The target of a link in a listing. Absent when it cannot be read: one damaged link must not
    /// end the listing of its directory.
    std::optional<std::string> linkTarget(const ItemRef& directory, const std::string& name,
                                          const fskit::FSItemAttributes& attributes) {
        const auto link = volume_.lookup(directory, name);
        if (!link) {
            return std::nullopt;
        }
        const auto text = volume_.readSymbolicLink(link->item);
        return text ? std::optional(shownTarget(*text, attributes)) : std::nullopt;
    }

    /// The target of a link that the user named; absent for other items. Throws Failure when it
    /// cannot be read.
    std::optional<std::string> target(const fskit::FSItemAttributes& attributes,
                                      const ItemRef& item, const std::string& path) {
        if (attributes.type() != FSItemType::symlink) {
            return std::nullopt;
        }
        return shownTarget(valueOf(volume_.readSymbolicLink(item), path), attributes);
    }

    VolumeClient& volume_;
    const ListCommand& command_;
    std::set<fskit::FSItemID> seen_;
    bool first_ = true; ///< no directory listed yet: blank lines stand between two
    bool failed_ = false;
};

void runList(const ListCommand& command) {
    withVolume(command.volume, Access::read, [&](Session& session) {
        Lister lister(session.volume(), command);
        const auto paths =
            command.paths.empty() ? std::vector<std::string>{usualDirectory()} : command.paths;
        forEachPath(paths, [&](const std::string& path) { lister.list(path, paths.size() > 1); });
        if (lister.hasFailed()) {
            throw Failure("");
        }
    });
}

void printAttributes(const std::string& path, const fskit::FSItemAttributes& attributes,
                     const std::optional<std::string>& target, const std::string& shortName) {
    const auto row = [](std::string_view title, std::string_view value) {
        print(fmt::format("{}{}\n", painted(fmt::format("{:<12}", title), Colour::strong), value));
    };
    row("path", shown(path) + (target ? " -> " + shown(*target) : ""));
    if (!shortName.empty()) {
        row("short name", shown(shortName));
    }
    std::string type(typeName(attributes.type()));
    if (const std::string_view kind = nativeKind(attributes); !kind.empty()) {
        type += fmt::format(", {}", kind);
    }
    for (const std::string& name : dosAttributeNames(attributes)) {
        type += ", " + name;
    }
    row("type", type);
    const fskit::FSItemNativeAttributes& native = attributes.native();
    if (native.reparseTag != 0) {
        row("reparse tag",
            fmt::format("0x{:08x}, {}", native.reparseTag, reparseTag(native.reparseTag).name));
    }
    if (isDevice(attributes.type())) {
        row("device", deviceText(native.device));
    }
    if (const auto reason =
            explainRefusal(static_cast<NTFSDataState>(native.dataState), native.reparseTag);
        !reason.empty()) {
        row("data", reason);
    }
    row("size", fmt::format("{} bytes, {} allocated", attributes.size(), attributes.allocSize()));
    row("id", fmt::format("{}, in directory {}", attributes.fileID(), attributes.parentID()));
    row("links", std::to_string(attributes.linkCount()));
    row("mode", modeText(attributes.type(), attributes.mode()));
    row("modified", humanTime(attributes.modifyTime(), true));
    row("accessed", humanTime(attributes.accessTime(), true));
    row("changed", humanTime(attributes.changeTime(), true));
    row("created", humanTime(attributes.birthTime(), true));
}

void printStream(const std::string& path, const Named& named, bool json) {
    if (json) {
        addItem(streamObject(path, *named.stream, named.size));
    } else {
        print(fmt::format("{:<12}{}\n{:<12}stream\n{:<12}{} bytes\n", "path", shown(path), "type",
                          "size", named.size));
    }
}

void runStat(const ListCommand& command) {
    withVolume(command.volume, Access::read, [&](Session& session) {
        forEachPath(command.paths, [&](const std::string& path) {
            const Named named = resolveNamed(session.volume(), path, LastLink::keep);
            const Found& found = named.found;
            if (named.stream) {
                printStream(path, named, command.json);
                return;
            }
            std::optional<std::string> target;
            if (found.attributes.type() == FSItemType::symlink) {
                target = shownTarget(valueOf(session.volume().readSymbolicLink(found.item), path),
                                     found.attributes);
            }
            const std::string alias = shortNameOf(session.volume(), path);
            if (command.json) {
                addItem(itemObject(rooted(path), found.attributes, target, alias));
            } else {
                printAttributes(path, found.attributes, target, alias);
            }
        });
    });
}

} // namespace

void defineList(CLI::App& command) {
    const auto arguments = std::make_shared<ListCommand>();
    freeLetterOfHelp(command);
    addVolume(command, arguments->volume);
    addPaths(command, "PATH", arguments->paths, 0, "What to list; the root without any");
    addFlag(command, "-l", arguments->longForm, "Mode, size in bytes, time of last change, name");
    addFlag(command, "-R", arguments->recursive, "Directories below as well");
    addFlag(command, "-a", arguments->all, "Hidden items and names that begin with \".\" too");
    addFlag(command, "-h", arguments->humanSizes, "With -l sizes like 1.5 MiB");
    addFlag(command, "-t", arguments->byTime, "Last changed first");
    addFlag(command, "-S", arguments->bySize, "Largest first");
    addFlag(command, "-r", arguments->reversed, "In the opposite order");
    addFlag(command, "-d", arguments->directoriesThemselves, "Directories, not what is in them");
    addFlag(command, "-1", arguments->onePerLine, "One name a line, as always");
    addFlag(command, "-p", arguments->slashes, "A \"/\" behind directories");
    addFlag(command, "--streams", arguments->streams, "Named streams as well, as \"file:stream\"");
    addFlag(command, "--short-names", arguments->shortNames, "The 8.3 name of each in front");
    addJSON(command, arguments->json);
    setWork(command, [arguments] { runList(*arguments); });
}

void defineStat(CLI::App& command) {
    const auto arguments = std::make_shared<ListCommand>();
    addVolume(command, arguments->volume);
    addPaths(command, "PATH", arguments->paths, 1, "Files, directories or links");
    addJSON(command, arguments->json);
    setWork(command, [arguments] { runStat(*arguments); });
}

} // namespace tavelin::cli
