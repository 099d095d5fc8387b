// tar: trees of the volume as archives on the standard streams.
#include "hosts/cli/arguments.hpp"
#include "hosts/cli/command_table.hpp"
#include "hosts/cli/copy/tar_reader.hpp"
#include "hosts/cli/copy/tar_writer.hpp"
#include "hosts/cli/report.hpp"
#include "hosts/cli/terminal.hpp"
#include "platform/error_numbers.hpp"

#include <memory>
#include <unistd.h>

namespace tavelin::cli {
namespace {

struct TarCommand {
    VolumeArguments volume;
    std::string action;
    std::vector<std::string> paths;
    bool noStreams = false;
};

void create(const TarCommand& command, CopyRun& run) {
    if (isOutputTerminal()) {
        throw Failure("an archive is not for a terminal: redirect standard output",
                      ExitStatus::wrongUsage);
    }
    takeInterruptions();
    withVolume(command.volume, Access::read, [&](Session& session) {
        TarWriter writer(session.volume(), run, STDOUT_FILENO);
        const std::vector<std::string> root{"/"};
        for (const std::string& path : command.paths.empty() ? root : command.paths) {
            try {
                writer.add(valueOf(resolve(session.volume(), path, LastLink::keep), path), path);
            } catch (const ItemFailure& failure) {
                run.problem(failure);
            }
        }
        writer.close();
        run.end();
    });
}

void extract(const TarCommand& command, CopyRun& run) {
    if (command.paths.size() > 1) {
        throw Failure("'extract' takes one directory", ExitStatus::wrongUsage);
    }
    if (isatty(STDIN_FILENO) == 1) {
        throw Failure("there is no archive on a terminal: redirect standard input",
                      ExitStatus::wrongUsage);
    }
    const std::string path = command.paths.empty() ? "/" : command.paths.front();
    withVolume(command.volume, Access::change, [&](Session& session) {
        auto there = resolve(session.volume(), path);
        if (!there && numberOf(there.error()) == kENOENT) {
            throwMissingTarget(path);
        }
        const Found target = valueOf(std::move(there), path);
        if (target.attributes.type() != fskit::FSItemType::directory) {
            throwItemError(path, kENOTDIR);
        }
        TarReader reader(session.volume(), run, target.item, STDIN_FILENO);
        reader.extractAll();
        run.end();
    });
}

void runTar(const TarCommand& command) {
    CopySettings settings;
    settings.streams = !command.noStreams;
    settings.quiet = true; // other programs share the terminal
    settings.image = imageStatus(command.volume.image, command.volume.offset);
    CopyRun run(settings);
    (command.action == "create" ? create : extract)(command, run);
}

} // namespace

void defineTar(CLI::App& command) {
    const auto arguments = std::make_shared<TarCommand>();
    addChoice(command, "ACTION", arguments->action, {"create", "extract"},
              "create: to standard output; extract: from standard input");
    addVolume(command, arguments->volume);
    addPaths(command, "PATH", arguments->paths, 0,
             "What to put into the archive, or the directory to unpack it in; else the root");
    addFlag(command, "--no-streams", arguments->noStreams, "Leave named streams out");
    setWork(command, [arguments] { runTar(*arguments); });
}

} // namespace tavelin::cli
