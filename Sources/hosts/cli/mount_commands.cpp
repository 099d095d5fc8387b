// mount, umount and mounts: the command line of the FUSE host.
#include "hosts/cli/arguments.hpp"
#include "hosts/cli/command_table.hpp"
#include "hosts/cli/failure.hpp"
#include "hosts/cli/image_place.hpp"
#include "hosts/cli/report.hpp"
#include "hosts/cli/terminal.hpp"
#include "hosts/cli/text.hpp"
#include "hosts/fuse/mount/commands.hpp"
#include "platform/error_numbers.hpp"

#include <fmt/format.h>

#include <cerrno>
#include <memory>
#include <optional>

namespace tavelin::cli {
namespace {

struct MountCommand {
    std::string image;
    std::string directory;
    std::vector<std::string> options; ///< each the list after one -o
    fusehost::MountRequest request;
};

/// Throws for a non-zero exit code, without a message: the FUSE host has printed the reason.
void failQuietlyUnless(int exitCode) {
    if (exitCode != 0) {
        throw Failure("", ExitStatus::failed);
    }
}

void runMount(MountCommand& command) {
    fusehost::MountRequest& request = command.request;
    // The kernel finds the partitions of a loop device, and each of them is a volume to mount.
    if (const ImagePlace place = findVolume(command.image, std::nullopt); place.partition != 0) {
        throw Failure(fmt::format("{0}: is a whole disk: 'losetup -fP --show {0}' makes devices of "
                                  "its partitions, of which the one that ends in p{1} can be "
                                  "mounted",
                                  escaped(place.path), place.partition));
    }
    for (const std::string& list : command.options) {
        const auto unknown = fusehost::applyOptions(list, request);
        if (!unknown.empty()) {
            throw Failure(fmt::format("-o {}: no such option or value; see 'tavelin mount --help'",
                                      escaped(unknown.front())),
                          ExitStatus::wrongUsage);
        }
    }
    // The serving process changes its working directory, so relative paths are resolved before.
    request.image = std::filesystem::absolute(command.image);
    request.directory = std::filesystem::absolute(command.directory);
    failQuietlyUnless(fusehost::mountVolume(request));
}

/// In a few words.
std::string stateOf(const fusehost::ServedVolume& volume) {
    switch (volume.error) {
    case 0:
        return volume.readOnly ? "read-only" : "read-write";
    case ENOTCONN:
        return "dead";
    default:
        return "unknown";
    }
}

std::string explained(const fusehost::ServedVolume& volume) {
    if (volume.error == ENOTCONN) {
        return fmt::format("its server has ended: 'tavelin umount {}' takes it away",
                           escaped(volume.directory.string()));
    }
    if (volume.error == ETIMEDOUT) {
        return "its server does not answer";
    }
    if (volume.error != 0) {
        return errorText(fromHost(volume.error));
    }
    const std::string access = volume.readOnly ? "read-only" : "read and write";
    return volume.server == 0 ? access : fmt::format("{}, process {}", access, volume.server);
}

void runMounts(bool json) {
    for (const fusehost::ServedVolume& volume : fusehost::servedVolumes()) {
        if (json) {
            JSONObject item;
            item.add("image", volume.image.string())
                .add("directory", volume.directory.string())
                .add("state", stateOf(volume))
                .add("process", volume.server);
            addItem(item);
        } else {
            print(fmt::format("{} on {}: {}\n", escaped(volume.image.string()),
                              escaped(volume.directory.string()), explained(volume)));
        }
    }
}

} // namespace

void defineMounts(CLI::App& command) {
    const auto json = std::make_shared<bool>();
    addJSON(command, *json);
    setWork(command, [json] { runMounts(*json); });
}

void defineMount(CLI::App& command) {
    const auto arguments = std::make_shared<MountCommand>();
    addArgument(command, "IMAGE", arguments->image, "Image file or block device");
    addArgument(command, "DIR", arguments->directory, "The directory to mount on");
    addOptionLists(
        command, arguments->options,
        "Options, comma separated: ro, windows_names, ignore_case, nocheck, "
        "symlinks=windows|interix, uid=, gid=, umask=, fmask=, dmask=, permissions, "
        "default_permissions, streams_interface=none, allow_other, writeback, low_latency, "
        "no_sandbox, and the kernel's own such as noexec");
    addFlag(command, "-r,--read-only", arguments->request.readOnly, "Do not change the volume");
    addFlag(command, "-f,--foreground", arguments->request.foreground,
            "Serve from this process, until the volume is unmounted");
    // A process in the background has no standard error to print requests on.
    addFlagWith(command, "--foreground", "--trace", arguments->request.trace,
                "Print every request on standard error, and their counts at the end");
    setWork(command, [arguments] { runMount(*arguments); });
}

void defineUnmount(CLI::App& command) {
    const auto directory = std::make_shared<std::string>();
    addArgument(command, "DIR", *directory, "The directory that a volume is mounted on");
    setWork(command, [directory] {
        failQuietlyUnless(fusehost::unmountVolume(std::filesystem::absolute(*directory)));
    });
}

} // namespace tavelin::cli
