#include "hosts/cli/shell/shell.hpp"

#include "hosting/paths.hpp"
#include "hosts/cli/command_line.hpp"
#include "hosts/cli/command_table.hpp"
#include "hosts/cli/interruption.hpp"
#include "hosts/cli/report.hpp"
#include "hosts/cli/shell/words.hpp"
#include "hosts/cli/terminal.hpp"
#include "hosts/cli/text.hpp"
#include "platform/error_numbers.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <filesystem>

namespace tavelin::cli {
namespace {

constexpr std::array<std::string_view, 6> kOwnCommands{"cd", "pwd", "lcd", "help", "exit", "quit"};
/// Commands that open a volume themselves, or have none.
constexpr std::string_view kOutsideCommands[]{"probe",  "check",  "mount",   "umount",
                                              "mounts", "events", "shell",   "batch",
                                              "map",    "tar",    "undelete"};

bool isOneOf(std::span<const std::string_view> names, std::string_view name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

/// The path of a directory whose ".." are its parents' and links. The volume has none of either.
std::string withoutDots(const std::string& path) {
    std::vector<std::string> steps;
    std::string_view rest = path;
    while (!rest.empty()) {
        const std::size_t slash = std::min(rest.find('/'), rest.size());
        const std::string_view step = rest.substr(0, slash);
        rest.remove_prefix(std::min(slash + 1, rest.size()));
        if (step == "..") {
            if (!steps.empty()) {
                steps.pop_back();
            }
        } else if (!step.empty() && step != ".") {
            steps.emplace_back(step);
        }
    }
    return steps.empty() ? "/" : fmt::format("/{}", fmt::join(steps, "/"));
}

/// The host's files that a word may become.
std::vector<std::string> hostPathsLike(const std::string& typed) {
    namespace fs = std::filesystem;
    const std::size_t slash = typed.rfind('/') + 1; // npos + 1 is 0
    const std::string above = typed.substr(0, slash);
    std::vector<std::string> words;
    std::error_code error;
    for (fs::directory_iterator entry(above.empty() ? "." : above, error);
         !error && entry != fs::directory_iterator(); entry.increment(error)) {
        const std::string name = entry->path().filename();
        std::error_code unreadable;
        if (name.starts_with(typed.substr(slash)) && escaped(name) == name) {
            words.push_back(asTyped(above + name) + (entry->is_directory(unreadable) ? "/" : ""));
        }
    }
    return words;
}

} // namespace

std::string Shell::prompt() const {
    return escaped(session_.volume().workingDirectory()) + "> ";
}

void Shell::changeDirectory(const std::string& path) {
    VolumeClient& volume = session_.volume();
    const Found found = valueOf(resolve(volume, path), path);
    if (found.attributes.type() != fskit::FSItemType::directory) {
        throwItemError(path, kENOTDIR);
    }
    volume.setWorkingDirectory(withoutDots(rooted(path)));
}

bool Shell::runOwn(const std::vector<std::string>& words) {
    const std::string& name = words.front();
    if (isOneOf(kOutsideCommands, name)) {
        throw Failure(fmt::format("'{}' is no command of the shell, whose volume is open", name),
                      ExitStatus::wrongUsage);
    }
    if (name == "help" || !isOneOf(kOwnCommands, name)) {
        return false;
    }
    const std::size_t most = name == "cd" || name == "lcd" ? 2 : 1;
    if (words.size() > most) {
        throw Failure(fmt::format("'{}' takes {}", name, most == 1 ? "no words" : "one path"),
                      ExitStatus::wrongUsage);
    }
    if (name == "cd") {
        changeDirectory(words.size() == 1 ? "/" : words[1]);
    } else if (name == "pwd") {
        print(shown(session_.volume().workingDirectory()) + "\n");
        flushOutput();
    } else if (name == "lcd") {
        const char* const home = std::getenv("HOME"); // NOLINT(concurrency-mt-unsafe): one thread
        const std::string directory = words.size() > 1 ? words[1] : home != nullptr ? home : "/";
        std::error_code error;
        std::filesystem::current_path(directory, error);
        if (error) {
            throw Failure(explainHost(directory, error.value()));
        }
    } else {
        ended_ = true;
    }
    return true;
}

ExitStatus Shell::run(std::string_view line) {
    try {
        beginReport("", false);
        const std::vector<std::string> words = wordsOf(line);
        if (words.empty() || runOwn(words)) {
            return ExitStatus::done;
        }
        int signal = 0;
        const ExitStatus status = runCommand(words, signal);
        if (signal != 0) {
            throw Interruption(signal);
        }
        return status;
    } catch (const Interruption&) {
        throw;
    } catch (const Failure& failure) {
        tellFailure(failure);
        return failure.status();
    }
}

std::vector<std::string> Shell::pathsLike(const std::string& typed) const {
    const std::size_t slash = typed.rfind('/') + 1;
    const std::string above = typed.substr(0, slash);
    const std::string prefix = typed.substr(slash);
    VolumeClient& volume = session_.volume();
    std::vector<std::string> words;
    const auto directory = resolve(volume, above);
    const auto entries = directory ? volume.list(directory->item, false)
                                   : Outcome<std::vector<DirectoryEntry>>(directory.error());
    if (!entries) {
        return words; // what is wrong with it is told when the line runs
    }
    for (const DirectoryEntry& entry : *entries) {
        // A name that could drive the terminal is not put on its line.
        if (entry.name.starts_with(prefix) && escaped(entry.name) == entry.name) {
            words.push_back(asTyped(above + entry.name) +
                            (entry.type == fskit::FSItemType::directory ? "/" : ""));
        }
    }
    return words;
}

std::vector<std::string> Shell::completionsOf(std::string_view line) const {
    try {
        const TypedWord word = lastWord(line);
        std::vector<std::string> words;
        if (!word.isFirst) {
            const std::string_view command = line.substr(line.find_first_not_of(' '));
            const bool isHost = command.starts_with("put ") || command.starts_with("lcd ");
            return isHost ? hostPathsLike(word.text) : pathsLike(word.text);
        }
        for (const Command& command : commandTable()) {
            if (command.name.starts_with(word.text) && !isOneOf(kOutsideCommands, command.name)) {
                words.emplace_back(command.name);
            }
        }
        for (const std::string_view name : kOwnCommands) {
            if (name.starts_with(word.text)) {
                words.emplace_back(name);
            }
        }
        return words;
    } catch (const std::exception&) {
        return {}; // a line is typed on without completion
    }
}

} // namespace tavelin::cli
