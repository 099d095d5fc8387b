// mount and umount: the command line of the FUSE host.
#include "hosts/cli/command_table.hpp"
#include "hosts/cli/failure.hpp"
#include "hosts/cli/text.hpp"
#include "hosts/fuse/commands.hpp"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <memory>

namespace tavelin::cli {
namespace {

struct MountCommand {
    std::string image;
    std::string folder;
    std::vector<std::string> options; ///< each the list after one -o
    fusehost::MountRequest request;
};

/// The FUSE host has already said why.
void failQuietlyUnless(int exitCode) {
    if (exitCode != 0) {
        throw Failure("", ExitStatus::failed);
    }
}

void runMount(MountCommand& command) {
    fusehost::MountRequest& request = command.request;
    for (const std::string& list : command.options) {
        const auto unknown = fusehost::applyOptions(list, request);
        if (!unknown.empty()) {
            throw Failure(fmt::format("-o {}: no such option; see 'tavelin mount --help'",
                                      escaped(unknown.front())),
                          ExitStatus::wrongUsage);
        }
    }
    // The serving process changes its directory.
    request.image = std::filesystem::absolute(command.image);
    request.folder = std::filesystem::absolute(command.folder);
    failQuietlyUnless(fusehost::mountVolume(request));
}

} // namespace

void defineMount(CLI::App& command) {
    const auto arguments = std::make_shared<MountCommand>();
    command.add_option("IMAGE", arguments->image, "Image file or block device")
        ->required()
        ->type_name("");
    command.add_option("DIR", arguments->folder, "The directory to mount on")
        ->required()
        ->type_name("");
    command
        .add_option("-o", arguments->options,
                    "Options, comma separated: ro, windows_names, allow_other, power_save, and the "
                    "kernel's own such as noatime")
        ->type_name("OPTIONS")
        ->allow_extra_args(false);
    command.add_flag("-r,--read-only", arguments->request.readOnly, "Do not change the volume");
    CLI::Option* const foreground =
        command.add_flag("-f,--foreground", arguments->request.foreground,
                         "Serve from this process, until the volume is unmounted");
    command
        .add_flag("--trace", arguments->request.trace,
                  "Print every request on standard error, and their counts at the end")
        ->needs(foreground); // there is no standard error in the background
    command.callback([arguments] { runMount(*arguments); });
}

void defineUnmount(CLI::App& command) {
    const auto folder = std::make_shared<std::string>();
    command.add_option("DIR", *folder, "The directory that a volume is mounted on")
        ->required()
        ->type_name("");
    command.callback([folder] {
        failQuietlyUnless(fusehost::unmountVolume(std::filesystem::absolute(*folder)));
    });
}

} // namespace tavelin::cli
