// cat and readlink.
#include "hosts/cli/arguments.hpp"
#include "hosts/cli/command_table.hpp"
#include "hosts/cli/copy/transfer.hpp"
#include "hosts/cli/item_text.hpp"
#include "hosts/cli/named_stream.hpp"
#include "hosts/cli/report.hpp"
#include "hosts/cli/terminal.hpp"
#include "hosts/cli/text.hpp"
#include "platform/error_numbers.hpp"

#include <memory>

namespace tavelin::cli {
namespace {

struct ReadCommand {
    VolumeArguments volume;
    std::vector<std::string> paths;
    bool json = false;
};

void runCat(const ReadCommand& command) {
    withVolume(command.volume, Access::read, [&](Session& session) {
        std::vector<std::byte> buffer(kTransferBytes);
        forEachPath(command.paths, [&](const std::string& path) {
            const Named named = resolveNamed(session.volume(), path);
            const Found& found = named.found;
            if (named.stream) {
                const auto bytes = readStream(session.volume(), named, path);
                print({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
                return;
            }
            if (found.attributes.type() == fskit::FSItemType::directory) {
                throwItemError(path, kEISDIR);
            }
            if (isSpecial(found.attributes.type())) {
                throwNoContent(path, found.attributes);
            }
            // A read of 0 bytes is the end of the file.
            std::uint64_t offset = 0;
            while (const std::size_t count = valueOf(
                       session.volume().read(found.item, offset, buffer), path, found.attributes)) {
                print({reinterpret_cast<const char*>(buffer.data()), count});
                offset += count;
            }
        });
        // Before the volume is closed: a failed write ends the command as a failure of its work.
        flushOutput();
    });
}

void runReadlink(const ReadCommand& command) {
    withVolume(command.volume, Access::read, [&](Session& session) {
        forEachPath(command.paths, [&](const std::string& path) {
            const Found found = valueOf(resolve(session.volume(), path, LastLink::keep), path);
            if (found.attributes.type() != fskit::FSItemType::symlink) {
                throw ItemFailure(escaped(path) + ": not a symbolic link", path, kEINVAL);
            }
            const std::string target = shownTarget(
                valueOf(session.volume().readSymbolicLink(found.item), path), found.attributes);
            if (command.json) {
                addItem(JSONObject().add("path", rooted(path)).add("target", target));
            } else {
                print(shown(target) + "\n");
            }
        });
    });
}

} // namespace

void defineCat(CLI::App& command) {
    const auto arguments = std::make_shared<ReadCommand>();
    addVolume(command, arguments->volume);
    addPaths(command, "PATH", arguments->paths, 1, "Files; \"file:stream\" for a stream of one");
    setWork(command, [arguments] { runCat(*arguments); });
}

void defineReadlink(CLI::App& command) {
    const auto arguments = std::make_shared<ReadCommand>();
    addVolume(command, arguments->volume);
    addPaths(command, "PATH", arguments->paths, 1, "Symbolic links");
    addJSON(command, arguments->json);
    setWork(command, [arguments] { runReadlink(*arguments); });
}

} // namespace tavelin::cli
