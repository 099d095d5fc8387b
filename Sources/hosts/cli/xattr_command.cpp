// xattr: the named streams of files and directories.
#include "hosts/cli/arguments.hpp"
#include "hosts/cli/command_table.hpp"
#include "hosts/cli/copy/transfer.hpp"
#include "hosts/cli/report.hpp"
#include "hosts/cli/terminal.hpp"
#include "hosts/cli/text.hpp"
#include "hosts/cli/tree_visit.hpp"
#include "platform/error_numbers.hpp"

#include <fmt/format.h>

#include <cerrno>
#include <memory>
#include <optional>
#include <unistd.h>

namespace tavelin::cli {
namespace {

struct XattrCommand {
    VolumeArguments volume;
    std::string action;
    std::string path;
    std::optional<std::string> name;
    std::optional<std::string> value; ///< standard input without
    bool recursive = false;
    bool json = false;
};

std::string standardInput() {
    std::string value;
    std::vector<char> piece(kTransferBytes);
    for (;;) {
        const ssize_t count = read(STDIN_FILENO, piece.data(), piece.size());
        if (count == 0) {
            return value;
        }
        if (count < 0 && errno != EINTR) {
            throw Failure(explainHost("standard input", errno));
        }
        // EINTR brings a signal here; its count of -1 appends nothing.
        throwIfInterrupted();
        value.append(piece.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        if (value.size() > kStreamBytesMax) {
            throw Failure("the value is larger than " + humanSize(kStreamBytesMax));
        }
    }
}

void list(VolumeClient& volume, const ItemRef& item, const std::string& path,
          const XattrCommand& command, ItemCount& count) {
    for (const std::string& name : valueOf(volume.listXattrs(item), path)) {
        count.clear();
        if (!command.json) {
            print((command.recursive ? shown(path) + ":" : "") + shown(name) + "\n");
            continue;
        }
        addItem(JSONObject()
                    .add("path", rooted(path))
                    .add("name", name)
                    .add("size", valueOf(volume.xattrSize(item, name), name)));
    }
}

/// Lists the streams of an item, with -R also of all below it, each as "path:stream".
void listAll(VolumeClient& volume, const Found& found, const XattrCommand& command) {
    const std::string top = lastComponent(command.path).empty() ? "" : command.path;
    ItemCount count(command.json);
    list(volume, found.item, command.path, command, count);
    if (!command.recursive || found.attributes.type() != fskit::FSItemType::directory) {
        return;
    }
    bool isComplete = true;
    const TreeVisitor visitor{
        .visit =
            [&](const TreeItem& item) {
                count.add();
                try {
                    const auto there =
                        valueOf(volume.lookup(item.directory, item.entry.name), item.path);
                    list(volume, there.item, item.path, command, count);
                } catch (const ItemFailure& failure) {
                    tellFailure(failure);
                    isComplete = false;
                }
                return item.entry.type == fskit::FSItemType::directory;
            },
        .leave = {}};
    if (!visitTree(volume, found.item, top, visitor) || !isComplete) {
        throw Failure(""); // told where it happened
    }
}

void get(VolumeClient& volume, const ItemRef& item, const XattrCommand& command) {
    const auto value = valueOf(volume.getXattr(item, *command.name), *command.name);
    print({reinterpret_cast<const char*>(value.data()), value.size()});
}

void set(VolumeClient& volume, const ItemRef& item, const XattrCommand& command) {
    const std::string value = command.value ? *command.value : standardInput();
    valueOf(volume.setXattr(item, *command.name, std::as_bytes(std::span(value))), *command.name);
}

void runXattr(const XattrCommand& command) {
    const bool changes = command.action == "set" || command.action == "rm";
    // The parser knows NAME only as optional, because "list" has none. Checked before the image is
    // opened.
    if ((command.json || command.recursive) && command.action != "list") {
        throw Failure("--json and -R are for 'list' alone", ExitStatus::wrongUsage);
    }
    if (command.action != "list" && command.name.value_or("").empty()) {
        throw Failure(fmt::format("'{}' needs the NAME of a stream; see 'tavelin xattr --help'",
                                  command.action),
                      ExitStatus::wrongUsage);
    }
    withVolume(command.volume, changes ? Access::change : Access::read, [&](Session& session) {
        VolumeClient& volume = session.volume();
        const Found found = valueOf(resolve(volume, command.path), command.path);
        if (command.action == "list") {
            listAll(volume, found, command);
        } else if (command.action == "get") {
            get(volume, found.item, command);
        } else if (command.action == "set") {
            set(volume, found.item, command);
        } else {
            valueOf(volume.removeXattr(found.item, *command.name), *command.name);
        }
    });
}

} // namespace

void defineXattr(CLI::App& command) {
    const auto arguments = std::make_shared<XattrCommand>();
    addChoice(command, "ACTION", arguments->action, {"list", "get", "set", "rm"},
              "list, get, set or rm");
    addVolume(command, arguments->volume);
    addArgument(command, "PATH", arguments->path, "File or directory; links are followed");
    addArgument(command, "NAME", arguments->name, "The stream's name, without a prefix");
    addArgument(command, "VALUE", arguments->value,
                "What 'set' writes; standard input, byte by byte, when left out");
    addFlag(command, "-R", arguments->recursive, "With 'list', of all below PATH as well");
    addJSON(command, arguments->json);
    setWork(command, [arguments] { runXattr(*arguments); });
}

} // namespace tavelin::cli
