#include "hosts/cli/command_line.hpp"

#include "hosts/cli/command_table.hpp"
#include "hosts/cli/failure.hpp"
#include "hosts/cli/interruption.hpp"
#include "hosts/cli/report.hpp"
#include "hosts/cli/session.hpp"
#include "hosts/cli/terminal.hpp"
#include "hosts/cli/text.hpp"
#include "platform/assert.hpp"
#include "platform/product.hpp"
#include "platform/services.hpp"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <numeric>

namespace tavelin::cli {
namespace {

constexpr const char* kAbout =
    "Reads and writes NTFS volumes in image files and on block devices, without mounting them.";
constexpr const char* kRules =
    "IMAGE is an image file or a block device. PATHs are inside the volume and begin\n"
    "at its root, with or without \"/\". Commands that only look leave the image as it\n"
    "is, to the byte.\n"
    "Exit status: 0 done, 1 failed with a message, 2 wrong usage.\n"
    "More: 'tavelin COMMAND --help' with examples, and 'man tavelin'.";

constexpr const char* kRulesOfShell =
    "The shell's own: cd [PATH] and pwd on the volume, lcd [DIR] on this system, exit.\n"
    "PATHs that do not begin with \"/\" begin at the directory that cd has set. Words\n"
    "with blanks are quoted.";

const Command* findCommand(std::string_view name) {
    const auto table = commandTable();
    const auto found =
        std::find_if(table.begin(), table.end(), [&](const auto& row) { return row.name == name; });
    return found == table.end() ? nullptr : &*found;
}

constexpr std::size_t kHelpColumns = 80;
constexpr std::size_t kHelpIndent = 26; ///< of what an option means

static_assert(kHelpIndent < kHelpColumns / 2, "wrapping needs room behind the indent");

/// The help with lines that fit a terminal: the parser writes each description on one. Rows of
/// options and commands go on below the description; examples stay as they are to be typed.
std::string wrapped(const std::string& help) {
    std::string result;
    for (std::string line : CLI::detail::split(help, '\n')) {
        const bool isExample = line.starts_with("  tavelin") || line.starts_with("  #");
        const std::size_t indent = line.starts_with("  ") ? kHelpIndent : 0;
        while (!isExample && line.size() > kHelpColumns) {
            const std::size_t blank = line.rfind(' ', kHelpColumns);
            if (blank == std::string::npos || blank <= indent) {
                break;
            }
            result += line.substr(0, blank) + "\n";
            line = std::string(indent, ' ') + line.substr(blank + 1);
        }
        result += line + "\n";
    }
    return result;
}

/// Formats the help: usage lines from the command table, and arguments without the types, limits
/// and environment names that the parser would add.
class HelpText final : public CLI::Formatter {
  public:
    HelpText() { column_width(kHelpIndent); }

    std::string make_usage(const CLI::App* app, std::string) const override {
        const Command* const command = findCommand(app->get_name());
        const bool isShell = StandingVolume::current() != nullptr;
        const std::string_view program = isShell ? "" : "tavelin ";
        const std::string_view arguments =
            command == nullptr ? "[OPTIONS] IMAGE [PATH...]" : command->synopsis;
        std::string usage = fmt::format("Usage: {}{} {}\n", program,
                                        command == nullptr ? "COMMAND" : command->name, arguments);
        constexpr std::string_view kImage = " IMAGE";
        if (const std::size_t image = usage.find(kImage); isShell && image != std::string::npos) {
            usage.erase(image, kImage.size());
        }
        return usage;
    }
    std::string make_option_opts(const CLI::Option* option) const override {
        const std::string type = option->get_type_name();
        return type.empty() ? "" : " " + type;
    }
    std::string make_help(const CLI::App* app, std::string name,
                          CLI::AppFormatMode mode) const override {
        return wrapped(CLI::Formatter::make_help(app, std::move(name), mode));
    }
    std::string make_footer(const CLI::App* app) const override { return app->get_footer() + "\n"; }
};

/// The section "Examples:" of a command's help, with the remarks in a column of their own.
std::string exampleText(const Command& command) {
    constexpr std::string_view kRemark = "  ## ";
    std::vector<std::pair<std::string, std::string>> examples; // what to type, remark
    std::size_t width = 0;
    for (const std::string& line : CLI::detail::split(std::string(command.examples), '\n')) {
        const std::size_t remark = line.find(kRemark);
        const bool whole = line.find("tavelin") != std::string::npos; // a pipe into it
        examples.emplace_back(
            (whole ? "" : "tavelin ") + line.substr(0, remark),
            remark == std::string::npos ? "" : "   # " + line.substr(remark + kRemark.size()));
        width = std::max(width, examples.back().second.empty() ? 0 : examples.back().first.size());
    }
    std::string text = "Examples:";
    const std::size_t longest = std::accumulate(examples.begin(), examples.end(), std::size_t{0},
                                                [](std::size_t most, const auto& example) {
                                                    return std::max(most, example.second.size());
                                                });
    for (const auto& [call, remark] : examples) {
        // Where the remarks do not fit beside the calls, they stand above them.
        if (width + longest + 2 > kHelpColumns && !remark.empty()) {
            text += fmt::format("\n  {}\n  {}", remark.substr(remark.find('#')), call);
        } else {
            text += fmt::format("\n  {:{}}{}", call, remark.empty() ? 0 : width, remark);
        }
    }
    return text;
}

/// The Levenshtein distance, with one row of the table in memory.
std::size_t editDistance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < a.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i + 1);
        for (std::size_t j = 0; j < b.size(); ++j) {
            const std::size_t changed = diagonal + (a[i] == b[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({changed, row[j] + 1, diagonal + 1});
        }
    }
    TAVELIN_ASSERT(row.back() <= std::max(a.size(), b.size()));
    return row.back();
}

/// What to say for a name under which people know one of the commands; null for other words.
const char* hintForOtherName(std::string_view word) {
    static constexpr const char* kCopyHint = "'get' copies out of the volume, 'put' into it";
    static constexpr std::pair<std::string_view, const char*> kHints[] = {
        {"cp", kCopyHint},
        {"copy", kCopyHint},
        {"dir", "did you mean 'ls'?"},
        {"del", "did you mean 'rm'?"},
        {"delete", "did you mean 'rm'?"},
        {"rmdir", "did you mean 'rm -r'?"},
        {"rename", "did you mean 'mv'?"},
        {"sha256sum", "did you mean 'hash'?"},
        {"fsck", "did you mean 'check'?"},
        {"chkdsk", "did you mean 'check'?"},
    };
    for (const auto& [name, hint] : kHints) {
        if (name == word) {
            return hint;
        }
    }
    return nullptr;
}

/// Throws Failure for a first word that is no command, with the closest command as a hint. The
/// parser would only call the word unexpected.
void checkCommand(const std::string& word) {
    if (word.empty() || word.front() == '-' || findCommand(word) != nullptr) {
        return;
    }
    const auto table = commandTable();
    const auto& closest =
        *std::min_element(table.begin(), table.end(), [&](const auto& a, const auto& b) {
            return editDistance(a.name, word) < editDistance(b.name, word);
        });
    // Two changes cover a swapped pair of letters. More, or two in a short word, would suggest
    // unrelated commands.
    constexpr std::size_t kShortWord = 2;
    const std::size_t changesMax = word.size() <= kShortWord ? 1 : 2;
    std::string hint = "'tavelin --help' lists the commands";
    if (const char* const known = hintForOtherName(word)) {
        hint = known;
    } else if (editDistance(closest.name, word) <= changesMax) {
        hint = fmt::format("did you mean '{}'?", closest.name);
    }
    throw Failure(fmt::format("there is no command '{}': {}", escaped(word), hint),
                  ExitStatus::wrongUsage);
}

void defineAll(CLI::App& app) {
    app.formatter(std::make_shared<HelpText>());
    app.set_version_flag("--version", std::string("tavelin ") + product::kVersion,
                         "Print the version and exit");
    app.set_help_flag("-h,--help", "Print this help and exit");
    app.require_subcommand(1);
    app.footer(StandingVolume::current() == nullptr ? kRules : kRulesOfShell);
    for (const Command& row : commandTable()) {
        CLI::App* const command =
            app.add_subcommand(std::string(row.name), std::string(row.summary));
        command->group(std::string(row.group));
        if (StandingVolume::current() == nullptr) { // they name an image
            command->footer(exampleText(row));
        }
        row.define(*command);
    }
}

/// Parses and runs. The parser calls the command's work, whose Failure passes through it.
ExitStatus parseAndRun(CLI::App& app, std::vector<std::string> words) {
    if (words.empty()) {
        throw Failure("say what to do: 'tavelin --help' lists the commands",
                      ExitStatus::wrongUsage);
    }
    // "tavelin help COMMAND" is "tavelin COMMAND --help".
    if (words.front() == "help") {
        words.erase(words.begin());
        words.emplace_back("--help");
    }
    checkCommand(words.front());
    std::reverse(words.begin(), words.end()); // the parser takes them from the back
    try {
        app.parse(std::move(words));
    } catch (const CLI::Success& asked) { // help or version
        static_cast<void>(app.exit(asked));
    } catch (const CLI::ParseError& error) {
        const auto parsed = app.get_subcommands();
        const std::string name = parsed.empty() ? "" : " " + parsed.front()->get_name();
        throw Failure(fmt::format("{}; see 'tavelin{} --help'", escaped(error.what()), name),
                      ExitStatus::wrongUsage);
    }
    flushOutput();
    return ExitStatus::done;
}

/// Keeps log lines off the terminal, where they would repeat the commands' own messages. They still
/// go to syslog.
void keepLogOffTerminal() {
    Services own = posixServices();
    own.systemLog = makePosixSystemLog({.terminal = std::nullopt});
    installServices(std::move(own));
}

/// Names the command in messages, and begins the answer that --json asks for. This comes before
/// parsing, so that wrong usage is answered in the same form.
void begin(const std::vector<std::string>& words) {
    const Command* const command = words.empty() ? nullptr : findCommand(words.front());
    const auto end = std::find(words.begin(), words.end(), "--");
    // The event log's lines are JSON by themselves and have no end.
    const bool json = command != nullptr && command->name != "events" &&
                      std::find(words.begin(), end, "--json") != end &&
                      std::find(words.begin(), end, "--help") == end;
    beginReport(command == nullptr ? "" : words.front(), json);
}

/// Runs the command and tells its failure. `signal` is set to the one that has ended it.
ExitStatus run(const std::vector<std::string>& words, int& signal) {
    try {
        CLI::App app(kAbout, "tavelin");
        defineAll(app);
        return parseAndRun(app, words);
    } catch (const Interruption& interruption) {
        signal = interruption.signal();
        tellFailure(interruption);
        return interruption.status();
    } catch (const Failure& failure) {
        tellFailure(failure);
        return failure.status();
    } catch (const fskit::Error& error) {
        tellFailure(Failure(error.localizedDescription()));
    } catch (const std::bad_alloc&) {
        tellFailure(Failure("out of memory"));
    } catch (const std::exception& error) {
        tellFailure(Failure(error.what()));
    }
    return ExitStatus::failed;
}

} // namespace

ExitStatus runCommand(const std::vector<std::string>& words, int& signal) {
    ExitStatus status = ExitStatus::done;
    try {
        begin(words);
        status = run(words, signal);
        endReport(status);
        // A write error that shows only here must still fail the command.
        flushOutput();
    } catch (const std::exception& error) { // of the output, or no memory for a message
        complain(error.what());
        status = status == ExitStatus::done ? ExitStatus::failed : status;
    }
    return status;
}

int runCommandLine(int argc, char** argv) {
    keepLogOffTerminal();
    // argc is 0 when the program was started without even its own name.
    const std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
    int signal = 0;
    const ExitStatus status = runCommand(words, signal);
    if (signal != 0) {
        endBySignal(signal);
    }
    return static_cast<int>(status);
}

} // namespace tavelin::cli
