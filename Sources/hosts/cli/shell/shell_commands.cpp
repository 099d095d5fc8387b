// shell and batch: many commands over one open volume.
#include "hosts/cli/arguments.hpp"
#include "hosts/cli/command_table.hpp"
#include "hosts/cli/interruption.hpp"
#include "hosts/cli/shell/line_editor.hpp"
#include "hosts/cli/shell/shell.hpp"
#include "hosts/cli/terminal.hpp"
#include "hosts/cli/text.hpp"

#include <fmt/format.h>

#include <csignal>
#include <fstream>
#include <iostream>
#include <memory>
#include <unistd.h>

namespace tavelin::cli {
namespace {

struct ShellCommand {
    VolumeArguments volume;
    std::optional<std::string> file;
    bool keepGoing = false;
};

/// Ends the command with the status of a line, whose failure has been told.
void throwStatus(ExitStatus status) {
    if (status != ExitStatus::done) {
        throw Failure("", status);
    }
}

/// Deals with Ctrl-C, which ends a command and not the shell. Any other signal ends the shell.
void goOnAfter(const Interruption& interruption) {
    if (interruption.signal() != SIGINT) {
        throw interruption;
    }
    forgetInterruption();
}

/// Lines that a person types, until the end of the input. A line that fails has been told, and the
/// next one is asked for.
void converse(Shell& shell) {
    LineEditor editor([&](std::string_view line) { return shell.completionsOf(line); });
    while (!shell.hasEnded()) {
        try {
            const std::optional<std::string> line = editor.read(shell.prompt());
            if (!line) {
                print("\n"); // behind the prompt
                return;
            }
            static_cast<void>(shell.run(*line));
        } catch (const Interruption& interruption) {
            goOnAfter(interruption);
            print("\n");
        }
    }
}

/// The lines of a file or a pipe. Ends with the first that fails, unless `keepGoing`.
ExitStatus work(Shell& shell, std::istream& lines, const std::string& name, bool keepGoing) {
    ExitStatus result = ExitStatus::done;
    std::string line;
    for (std::size_t number = 1; !shell.hasEnded() && std::getline(lines, line); ++number) {
        throwIfInterrupted();
        const ExitStatus status = shell.run(line);
        if (status != ExitStatus::done) {
            complain(fmt::format("{}: line {} failed{}", escaped(name), number,
                                 keepGoing ? "" : "; the lines behind it were not run"));
            result = status;
            if (!keepGoing) {
                break;
            }
        }
    }
    throwIfInterrupted();
    if (lines.bad()) {
        throw Failure(fmt::format("{}: cannot be read", escaped(name)));
    }
    return result;
}

template<typename Work>
void withShell(const ShellCommand& command, bool syncs, Work&& linesOf) {
    takeInterruptions();
    const Access access = command.volume.readOnly ? Access::read : Access::change;
    withVolume(command.volume, access, [&](Session& session) {
        Shell shell(session, command.volume, syncs);
        linesOf(shell);
    });
}

void runShell(const ShellCommand& command) {
    if (isatty(STDIN_FILENO) == 1) {
        withShell(command, true, converse);
        return;
    }
    withShell(command, false,
              [](Shell& shell) { throwStatus(work(shell, std::cin, "standard input", true)); });
}

void runBatch(const ShellCommand& command) {
    std::ifstream file;
    const bool isStandardInput = !command.file || *command.file == "-";
    if (!isStandardInput) {
        file.open(*command.file);
        if (!file) { // before the image is opened, so that a mistyped name changes nothing
            throw Failure(explainHost(*command.file, errno));
        }
    }
    withShell(command, false, [&](Shell& shell) {
        throwStatus(work(shell, isStandardInput ? std::cin : file,
                         isStandardInput ? "standard input" : *command.file, command.keepGoing));
    });
}

} // namespace

void defineShell(CLI::App& command) {
    const auto arguments = std::make_shared<ShellCommand>();
    addVolume(command, arguments->volume);
    setWork(command, [arguments] { runShell(*arguments); });
}

void defineBatch(CLI::App& command) {
    const auto arguments = std::make_shared<ShellCommand>();
    addVolume(command, arguments->volume);
    addArgument(command, "FILE", arguments->file,
                "The commands, one a line; standard input when left out or \"-\"");
    addFlag(command, "-k,--keep-going", arguments->keepGoing,
            "Go on after a line that failed; the exit status is that of the last one");
    setWork(command, [arguments] { runBatch(*arguments); });
}

} // namespace tavelin::cli
