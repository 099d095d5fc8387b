// ls and stat: names and attributes.
#include "core/reparse_tags.hpp"
#include "hosts/cli/arguments.hpp"
#include "hosts/cli/command_table.hpp"
#include "hosts/cli/terminal.hpp"
#include "hosts/cli/text.hpp"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <memory>
#include <set>

namespace tavelin::cli {
namespace {

using JSON = nlohmann::ordered_json;
using fskit::FSItemType;

struct ListCommand {
    VolumeArguments volume;
    std::vector<std::string> paths;
    bool longForm = false;
    bool recursive = false;
    bool all = false;
    bool json = false;
};

/// The JSON value for the place of an item's bytes. Programs rely on the words.
std::string_view dataName(fskit::FSItemDataState state) {
    switch (state) {
    case fskit::FSItemDataState::systemCompressed:
        return "system-compressed";
    case fskit::FSItemDataState::elsewhere:
        return "elsewhere";
    case fskit::FSItemDataState::encrypted:
        return "encrypted";
    case fskit::FSItemDataState::here:
        break;
    }
    return "here";
}

bool isDevice(FSItemType type) {
    return type == FSItemType::charDevice || type == FSItemType::blockDevice;
}

/// "5, 300", as `ls -l` has it in place of a size.
std::string deviceText(std::uint64_t device) {
    return fmt::format("{}, {}", device >> 32, device & 0xffffffff);
}

/// The kind of an item that its type does not express, such as "deduplicated". Empty for plain
/// items, and for links and devices, whose reparse tag is their type.
std::string_view nativeKind(const fskit::FSItemAttributes& attributes) {
    const fskit::FSItemNativeAttributes& native = attributes.native();
    if (native.dataState == fskit::FSItemDataState::encrypted) {
        return "encrypted";
    }
    const bool isPlainType =
        attributes.type() == FSItemType::file || attributes.type() == FSItemType::directory;
    return isPlainType && native.reparseTag != 0 ? reparseTag(native.reparseTag).name : "";
}

JSON asJSON(const std::string& path, const fskit::FSItemAttributes& attributes,
            const std::optional<std::string>& target) {
    JSON result{{"path", path},
                {"type", typeName(attributes.type())},
                {"size", attributes.size()},
                {"allocated", attributes.allocSize()},
                {"id", attributes.fileID()},
                {"links", attributes.linkCount()},
                {"mode", attributes.mode() & 07777},
                {"hidden", (attributes.flags() & fskit::kHiddenFlag) != 0},
                {"modified", isoTime(attributes.modifyTime())},
                {"accessed", isoTime(attributes.accessTime())},
                {"changed", isoTime(attributes.changeTime())},
                {"created", isoTime(attributes.birthTime())}};
    if (target) {
        result["target"] = *target;
    }
    const fskit::FSItemNativeAttributes& native = attributes.native();
    result["data"] = dataName(native.dataState);
    if (native.reparseTag != 0) {
        result["reparseTag"] = fmt::format("0x{:08x}", native.reparseTag);
        result["reparseKind"] = reparseTag(native.reparseTag).name;
    }
    if (isDevice(attributes.type())) {
        result["device"] = deviceText(native.device);
    }
    return result;
}

/// Prints one JSON array, each element as soon as it is known: a listing may be larger than memory.
class JSONArray {
  public:
    void add(const JSON& value) {
        print((empty_ ? "[\n" : ",\n") +
              value.dump(-1, ' ', false, JSON::error_handler_t::replace));
        empty_ = false;
    }
    void end() { print(empty_ ? "[]\n" : "\n]\n"); }

  private:
    bool empty_ = true;
};

/// One run of `ls` over all its paths.
class Lister {
  public:
    Lister(VolumeClient& volume, const ListCommand& command) : volume_(volume), command_(command) {}

    void list(const std::string& path, bool titled) {
        const Found found = valueOf(resolve(volume_, path), path);
        if (found.attributes.type() != FSItemType::directory) {
            show(path, path, found.attributes, target(found.attributes, found.item, path));
        } else {
            listDirectory(path, found.item, titled || command_.recursive);
        }
    }

    void end() {
        if (command_.json) {
            array_.end();
        }
    }

  private:
    void listDirectory(const std::string& path, const ItemRef& directory, bool titled) {
        if (titled && !command_.json) {
            print(fmt::format("{}{}:\n", first_ ? "" : "\n", shown(path)));
        }
        first_ = false;
        const auto entries = valueOf(volume_.list(directory, true), path);
        // An entry whose attributes cannot be read is still listed, with its name and type.
        for (const DirectoryEntry& entry : entries) {
            if (isShown(entry)) {
                const std::string below = joined(path == "/" ? "" : path, entry.name);
                fskit::FSItemAttributes attributes =
                    entry.attributes.value_or(fskit::FSItemAttributes());
                attributes.setType(entry.type);
                show(command_.json ? below : entry.name, below, attributes,
                     entry.type == FSItemType::symlink && (command_.longForm || command_.json)
                         ? linkTarget(directory, entry.name, attributes)
                         : std::nullopt);
            }
        }
        if (command_.recursive) {
            descend(path, directory, entries);
        }
    }

    void descend(const std::string& path, const ItemRef& directory,
                 const std::vector<DirectoryEntry>& entries) {
        for (const DirectoryEntry& entry : entries) {
            // A damaged volume may have directories that contain themselves. Each is listed once.
            if (entry.type != FSItemType::directory || !isShown(entry) ||
                !seen_.insert(entry.itemID).second) {
                continue;
            }
            const std::string below = joined(path == "/" ? "" : path, entry.name);
            const ItemRef child = valueOf(volume_.lookup(directory, entry.name), below).item;
            listDirectory(below, child, true);
        }
    }

    [[nodiscard]] bool isShown(const DirectoryEntry& entry) const {
        const bool hidden =
            entry.attributes && (entry.attributes->flags() & fskit::kHiddenFlag) != 0;
        return command_.all || (!hidden && !entry.name.starts_with('.'));
    }

    void show(const std::string& name, const std::string& path,
              const fskit::FSItemAttributes& attributes, const std::optional<std::string>& target) {
        if (command_.json) {
            array_.add(asJSON(path, attributes, target));
            return;
        }
        const Colour colour = attributes.type() == FSItemType::directory ? Colour::directory
                              : attributes.type() == FSItemType::symlink ? Colour::link
                                                                         : Colour::plain;
        std::string line = painted(shown(name), colour);
        if (command_.longForm) {
            line = fmt::format(
                "{} {:>14}  {}  {}{}", modeText(attributes.type(), attributes.mode()),
                isDevice(attributes.type()) ? deviceText(attributes.native().device)
                                            : std::to_string(attributes.size()),
                humanTime(attributes.modifyTime()), line, target ? " -> " + shown(*target) : "");
            if (const std::string_view kind = nativeKind(attributes); !kind.empty()) {
                line += fmt::format("  [{}]", kind);
            }
        }
        print(line + "\n");
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
    JSONArray array_;
    std::set<fskit::FSItemID> seen_{fskit::FSItemIDRootDirectory};
    bool first_ = true; ///< no directory listed yet: blank lines stand between two
};

void runList(const ListCommand& command) {
    withVolume(command.volume, Access::read, [&](Session& session) {
        Lister lister(session.volume(), command);
        const auto paths = command.paths.empty() ? std::vector<std::string>{"/"} : command.paths;
        for (const std::string& path : paths) {
            lister.list(path, paths.size() > 1);
        }
        lister.end();
    });
}

void printAttributes(const std::string& path, const fskit::FSItemAttributes& attributes,
                     const std::optional<std::string>& target) {
    const auto row = [](std::string_view title, std::string_view value) {
        print(fmt::format("{}{}\n", painted(fmt::format("{:<12}", title), Colour::strong), value));
    };
    row("path", shown(path) + (target ? " -> " + shown(*target) : ""));
    const std::string_view kind = nativeKind(attributes);
    row("type", fmt::format("{}{}{}{}", typeName(attributes.type()), kind.empty() ? "" : ", ", kind,
                            (attributes.flags() & fskit::kHiddenFlag) != 0 ? ", hidden" : ""));
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

void runStat(const ListCommand& command) {
    withVolume(command.volume, Access::read, [&](Session& session) {
        JSONArray array;
        for (const std::string& path : command.paths) {
            const Found found = valueOf(resolve(session.volume(), path, LastLink::keep), path);
            std::optional<std::string> target;
            if (found.attributes.type() == FSItemType::symlink) {
                target = shownTarget(valueOf(session.volume().readSymbolicLink(found.item), path),
                                     found.attributes);
            }
            if (command.json) {
                array.add(asJSON(path, found.attributes, target));
            } else {
                printAttributes(path, found.attributes, target);
            }
        }
        if (command.json) {
            array.end();
        }
    });
}

} // namespace

void defineList(CLI::App& command) {
    const auto arguments = std::make_shared<ListCommand>();
    addVolume(command, arguments->volume);
    addPaths(command, "PATH", arguments->paths, 0, "What to list; the root without any");
    addFlag(command, "-l", arguments->longForm, "Mode, size in bytes, time of last change, name");
    addFlag(command, "-R", arguments->recursive, "Directories below as well");
    addFlag(command, "-a", arguments->all, "Hidden items and names that begin with \".\" as well");
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
