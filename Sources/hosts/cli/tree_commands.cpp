// find, tree and du: what is in whole trees.
#include "hosts/cli/arguments.hpp"
#include "hosts/cli/command_table.hpp"
#include "hosts/cli/glob.hpp"
#include "hosts/cli/item_text.hpp"
#include "hosts/cli/report.hpp"
#include "hosts/cli/terminal.hpp"
#include "hosts/cli/text.hpp"
#include "hosts/cli/tree_visit.hpp"
#include "platform/assert.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <optional>

namespace tavelin::cli {
namespace {

using fskit::FSItemType;

struct TreeCommand {
    VolumeArguments volume;
    std::vector<std::string> paths; ///< of find: patterns
    std::optional<std::string> type;
    std::optional<std::uint64_t> depth;
    bool sizes = false;
    bool humanSizes = false;
    bool summaryOnly = false;
    bool files = false;
    bool json = false;
};

/// Calls `visitor` below each path that the user named, or below the root. Paths go on after one
/// that fails.
template<typename Begin>
void visitEach(const TreeCommand& command, const std::vector<std::string>& paths,
               const TreeVisitor& visitor, Begin&& begin) {
    withVolume(command.volume, Access::read, [&](Session& session) {
        bool isComplete = true;
        forEachPath(paths, [&](const std::string& path) {
            const Found found = valueOf(resolve(session.volume(), path), path);
            if (begin(path, found)) {
                isComplete &=
                    visitTree(session.volume(), found.item,
                              lastComponent(path).empty() || path == "." ? "" : path, visitor);
            }
        });
        if (!isComplete) {
            throw Failure(""); // told where it happened
        }
    });
}

std::vector<std::string> orRoot(const std::vector<std::string>& paths) {
    return paths.empty() ? std::vector<std::string>{usualDirectory()} : paths;
}

std::string amount(const TreeCommand& command, std::uint64_t bytes) {
    return command.humanSizes ? humanSize(bytes) : std::to_string(bytes);
}

// ---- find --------------------------------------------------------------------------------------

bool isOfType(const TreeCommand& command, FSItemType type) {
    return !command.type || (*command.type == "f" && type == FSItemType::file) ||
           (*command.type == "d" && type == FSItemType::directory) ||
           (*command.type == "l" && type == FSItemType::symlink);
}

void runFind(const TreeCommand& command) {
    if (command.type && *command.type != "f" && *command.type != "d" && *command.type != "l") {
        throw Failure("--type takes f (files), d (directories) or l (links)",
                      ExitStatus::wrongUsage);
    }
    ItemCount count(command.json);
    const TreeVisitor visitor{
        .visit =
            [&](const TreeItem& item) {
                count.add();
                const bool matches =
                    command.paths.empty() ||
                    std::any_of(command.paths.begin(), command.paths.end(),
                                [&](const auto& glob) { return matchesPath(glob, item.path); });
                if (matches && isOfType(command, item.entry.type)) {
                    count.clear();
                    if (command.json) {
                        addItem(itemObject(rooted(item.path), item.attributes, std::nullopt));
                    } else {
                        print(shown(item.path) + "\n");
                    }
                }
                return true;
            },
        .leave = {}};
    visitEach(command, {usualDirectory()}, visitor, [](const auto&, const Found&) { return true; });
}

// ---- tree --------------------------------------------------------------------------------------

/// Prints the lines of a tree, each behind the branches that pass it.
class TreePrinter {
  public:
    explicit TreePrinter(const TreeCommand& command) : command_(command) {}

    bool begin(const std::string& path, const Found& found) {
        print(painted(shown(path), Colour::directory) + "\n");
        return found.attributes.type() == FSItemType::directory;
    }

    bool visit(const TreeItem& item) {
        TAVELIN_ASSERT(item.depth > 0 && item.depth <= passing_.size() + 1);
        passing_.resize(item.depth - 1);
        std::string line;
        for (const bool passes : passing_) {
            line += passes ? "│   " : "    ";
        }
        line += item.isLast ? "└── " : "├── ";
        if (command_.sizes || command_.humanSizes) {
            line += fmt::format("[{}]  ", amount(command_, item.attributes.size()));
        }
        const bool isDirectory = item.entry.type == FSItemType::directory;
        ++(isDirectory ? directories_ : files_);
        line += painted(shown(item.entry.name), isDirectory ? Colour::directory : Colour::plain);
        print(line + "\n");
        passing_.push_back(!item.isLast);
        return !command_.depth || item.depth < *command_.depth;
    }

    void end() const { print(fmt::format("\n{} directories, {} files\n", directories_, files_)); }

  private:
    const TreeCommand& command_;
    std::vector<bool> passing_; ///< for each level, whether its directory has more below this line
    std::uint64_t directories_ = 0;
    std::uint64_t files_ = 0;
};

void runTree(const TreeCommand& command) {
    TreePrinter printer(command);
    const TreeVisitor visitor{.visit = [&](const TreeItem& item) { return printer.visit(item); },
                              .leave = {}};
    visitEach(
        command, orRoot(command.paths), visitor,
        [&](const std::string& path, const Found& found) { return printer.begin(path, found); });
    printer.end();
}

// ---- du ----------------------------------------------------------------------------------------

struct Usage {
    std::uint64_t allocated = 0;
    std::uint64_t bytes = 0;
    std::uint64_t files = 0;

    void add(const Usage& other) {
        allocated += other.allocated;
        bytes += other.bytes;
        files += other.files;
    }
};

void printUsage(const TreeCommand& command, ItemCount& count, const std::string& path,
                const Usage& usage) {
    count.clear();
    if (command.json) {
        addItem(JSONObject()
                    .add("path", rooted(path))
                    .add("allocated", usage.allocated)
                    .add("bytes", usage.bytes)
                    .add("files", usage.files));
    } else {
        print(fmt::format("{:>14}  {}\n", amount(command, usage.allocated), shown(path)));
    }
}

void runDu(const TreeCommand& command) {
    withVolume(command.volume, Access::read, [&](Session& session) {
        bool isComplete = true;
        ItemCount count;
        forEachPath(orRoot(command.paths), [&](const std::string& path) {
            const Found found = valueOf(resolve(session.volume(), path), path);
            // One for each directory from the named one to the current one.
            std::vector<Usage> open{{found.attributes.allocSize(), 0, 0}};
            if (found.attributes.type() != FSItemType::directory) {
                printUsage(command, count, path,
                           {found.attributes.allocSize(), found.attributes.size(), 1});
                return;
            }
            const TreeVisitor visitor{
                .visit =
                    [&](const TreeItem& item) {
                        count.add();
                        const std::uint64_t allocated = item.attributes.allocSize();
                        if (item.entry.type == FSItemType::directory) {
                            open.push_back({allocated, 0, 0});
                            return true;
                        }
                        open.back().add({allocated, item.attributes.size(), 1});
                        if (command.files) {
                            printUsage(command, count, item.path,
                                       {allocated, item.attributes.size(), 1});
                        }
                        return false;
                    },
                .leave =
                    [&](const TreeItem& item) {
                        TAVELIN_ASSERT(open.size() > 1);
                        const Usage own = open.back();
                        open.pop_back();
                        open.back().add(own);
                        if (!command.summaryOnly) {
                            printUsage(command, count, item.path, own);
                        }
                    }};
            isComplete &= visitTree(session.volume(), found.item,
                                    lastComponent(path).empty() ? "" : path, visitor);
            TAVELIN_ASSERT(open.size() == 1);
            printUsage(command, count, path, open.front());
        });
        if (!isComplete) {
            throw Failure(""); // told where it happened
        }
    });
}

std::shared_ptr<TreeCommand> defineTreeCommand(CLI::App& command, const std::string& name,
                                               const std::string& what) {
    auto arguments = std::make_shared<TreeCommand>();
    freeLetterOfHelp(command);
    addVolume(command, arguments->volume);
    addPaths(command, name, arguments->paths, 0, what);
    return arguments;
}

} // namespace

void defineFind(CLI::App& command) {
    const auto arguments = defineTreeCommand(
        command, "PATTERN", "Such as '*.jpg' or 'Photos/**/*.jpg'; everything without any");
    addText(command, "--type", arguments->type, "f|d|l", "Only files, directories or links");
    addJSON(command, arguments->json);
    setWork(command, [arguments] { runFind(*arguments); });
}

void defineTree(CLI::App& command) {
    const auto arguments =
        defineTreeCommand(command, "PATH", "Where to begin; the root without any");
    addFlag(command, "-s", arguments->sizes, "Sizes in bytes");
    addFlag(command, "-h", arguments->humanSizes, "Sizes like 1.5 MiB");
    addNumber(command, "-L", arguments->depth, "N", "Only N levels");
    setWork(command, [arguments] { runTree(*arguments); });
}

void defineDu(CLI::App& command) {
    const auto arguments =
        defineTreeCommand(command, "PATH", "What to sum up; the root without any");
    addFlag(command, "-a", arguments->files, "Files as well, not only directories");
    addFlag(command, "-h", arguments->humanSizes, "Sizes like 1.5 MiB");
    addFlag(command, "-s", arguments->summaryOnly, "Only one line for each PATH");
    addJSON(command, arguments->json);
    setWork(command, [arguments] { runDu(*arguments); });
}

} // namespace tavelin::cli
