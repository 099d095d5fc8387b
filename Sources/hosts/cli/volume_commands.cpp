// probe, info, df, label: the volume as a whole.
#include "diagnostics/event_log.hpp"
#include "hosts/cli/arguments.hpp"
#include "hosts/cli/command_table.hpp"
#include "hosts/cli/report.hpp"
#include "hosts/cli/terminal.hpp"
#include "hosts/cli/text.hpp"
#include "hosts/cli/volume_condition.hpp"
#include "platform/error_numbers.hpp"

#include <fmt/format.h>

#include <array>
#include <memory>
#include <optional>
#include <utility>

namespace tavelin::cli {
namespace {

struct VolumeCommand {
    VolumeArguments volume;
    bool json = false;
    bool statistics = false;
    bool humanSizes = false;
    std::optional<std::string> newLabel;
};

/// Sixteen hexadecimal digits, as the boot sector's 64-bit number is commonly written.
std::string serialText(std::uint64_t serial) {
    return fmt::format("{:016X}", serial);
}

/// The form of RFC 4122: 8-4-4-4-12 hexadecimal digits.
std::string text(const std::array<std::uint8_t, 16>& uuid) {
    std::string result;
    for (std::size_t i = 0; i < uuid.size(); ++i) {
        result +=
            fmt::format("{}{:02x}", i == 4 || i == 6 || i == 8 || i == 10 ? "-" : "", uuid[i]);
    }
    return result;
}

/// Probes without loading, so that it also recognises volumes that cannot be mounted.
void runProbe(const VolumeCommand& command) {
    const ImagePlace place = findVolume(command.volume.image, command.volume.offset);
    events().holdUntilFailure("load");
    std::unique_ptr<ModuleHost> host;
    try {
        host = std::make_unique<ModuleHost>(std::make_shared<ImageResource>(
            place.path, ImageResource::Settings{
                            .readOnly = true, .offset = place.offset, .length = place.length}));
    } catch (const OpenError& error) {
        throw openFailure(error, place);
    }
    const fskit::FSProbeResult probed = host->probe();
    const bool usable = probed.result == fskit::FSMatchResult::usable;
    const std::string name = probed.name.value_or("");
    const std::string identifier = probed.containerID ? text(probed.containerID->uuid) : "";
    if (command.json) {
        JSONObject result;
        result.add("image", command.volume.image).add("ntfs", usable);
        if (usable) {
            result.add("name", name)
                .add("identifier", identifier)
                .add("partition", place.partition)
                .add("offset", place.offset)
                .add("state", conditionObject(conditionOf(place, nullptr)));
        }
        addItem(result);
    }
    // The JSON is printed before the failure: a program gets the answer and the exit status.
    if (!usable) {
        throw openFailure(
            {OpenError::Reason::notNTFS, kEINVAL, command.volume.image, "not an NTFS volume"},
            place);
    }
    if (command.json) {
        return;
    }
    const std::string partition =
        place.partition == 0 ? "" : fmt::format(" in partition {}", place.partition);
    print(fmt::format("{}: NTFS volume \"{}\"{}, identifier {}\n", shown(command.volume.image),
                      shown(name), partition, identifier));
}

/// Names and values in the order of the output.
using Counters = std::vector<std::pair<const char*, std::uint64_t>>;

Counters counters(const NTFSIOStats& io) {
    return {{"deviceReads", io.deviceReads},   {"deviceWrites", io.deviceWrites},
            {"readBytes", io.readBytes},       {"writeBytes", io.writeBytes},
            {"unalignedOps", io.unalignedOps}, {"cacheHits", io.cacheHits},
            {"cacheMisses", io.cacheMisses},   {"dirtyPages", io.dirtyPages}};
}

void printInfo(const VolumeFacts& facts, const fskit::FSStatFSResult& space,
               const Condition& condition, const Counters& statistics) {
    const auto row = [](std::string_view title, std::string_view value) {
        print(fmt::format("{}{}\n", painted(fmt::format("{:<16}", title), Colour::strong), value));
    };
    const auto bytes = [](std::uint64_t count) {
        return fmt::format("{} ({} bytes)", humanSize(count), count);
    };
    row("label", facts.label.empty() ? "(none)" : shown(facts.label));
    row("serial number", serialText(facts.serial));
    row("size", bytes(space.totalBytes));
    row("used", bytes(space.usedBytes));
    row("free", bytes(space.freeBytes));
    row("cluster size", bytes(static_cast<std::uint64_t>(space.blockSize)));
    row("clusters", fmt::format("{}, {} free", space.totalBlocks, space.freeBlocks));
    if (condition.state) {
        row("NTFS version",
            fmt::format("{}.{}", condition.state->majorVersion, condition.state->minorVersion));
        row("file records", fmt::format("{} of {} in use", condition.state->recordsInUse,
                                        condition.state->records));
    }
    for (const std::string& sentence : conditionSentences(condition)) {
        row("state", sentence);
    }
    for (const auto& [name, value] : statistics) {
        row(name, std::to_string(value));
    }
}

void runInfo(const VolumeCommand& command) {
    withVolume(command.volume, Access::read, [&](Session& session) {
        const fskit::FSStatFSResult space = session.volume().statistics();
        // Copies the counters, so it comes after the request that they are to include.
        const VolumeFacts facts = session.facts();
        const Condition condition = conditionOf(session.place(), &session.volume());
        const Counters statistics = command.statistics ? counters(facts.io) : Counters{};
        if (!command.json) {
            printInfo(facts, space, condition, statistics);
            return;
        }
        JSONObject result;
        result.add("label", facts.label)
            .add("serial", serialText(facts.serial))
            .add("totalBytes", space.totalBytes)
            .add("usedBytes", space.usedBytes)
            .add("freeBytes", space.freeBytes)
            .add("clusterSize", space.blockSize)
            .add("totalClusters", space.totalBlocks)
            .add("freeClusters", space.freeBlocks)
            .add("totalFiles", space.totalFiles)
            .add("freeFiles", space.freeFiles)
            .add("partition", session.place().partition)
            .add("offset", session.place().offset)
            .add("state", conditionObject(condition));
        if (condition.state) {
            result.add("records", condition.state->records)
                .add("recordsInUse", condition.state->recordsInUse);
        }
        if (command.statistics) {
            JSONObject counted;
            for (const auto& [name, value] : statistics) {
                counted.add(name, value);
            }
            result.add("stats", counted);
        }
        addItem(result);
    });
}

void runLabel(const VolumeCommand& command) {
    const bool change = command.newLabel.has_value();
    withVolume(command.volume, change ? Access::change : Access::read, [&](Session& session) {
        if (change) {
            // The volume refuses an empty name without a remedy, so it is answered here.
            if (command.newLabel->empty()) {
                throw Failure("a label cannot be empty: name one", ExitStatus::wrongUsage);
            }
            if (auto set = session.volume().setName(*command.newLabel); !set) {
                throw Failure(numberOf(set.error()) == kENAMETOOLONG
                                  ? "the label is too long: NTFS allows 128 UTF-16 units"
                                  : explain(*command.newLabel, set.error()));
            }
        }
        const std::string label = session.facts().label;
        if (command.json) {
            addItem(JSONObject().add("label", label));
        } else if (!change) {
            print(shown(label) + "\n");
        }
    });
}

std::shared_ptr<VolumeCommand> defineVolumeCommand(CLI::App& command) {
    auto arguments = std::make_shared<VolumeCommand>();
    addVolume(command, arguments->volume);
    addJSON(command, arguments->json);
    return arguments;
}

void runDf(const VolumeCommand& command) {
    withVolume(command.volume, Access::read, [&](Session& session) {
        const fskit::FSStatFSResult space = session.volume().statistics();
        if (command.json) {
            addItem(JSONObject()
                        .add("totalBytes", space.totalBytes)
                        .add("usedBytes", space.usedBytes)
                        .add("freeBytes", space.freeBytes));
            return;
        }
        const auto amount = [&](std::uint64_t bytes) {
            return command.humanSizes ? humanSize(bytes) : std::to_string(bytes);
        };
        // Rounded up, so that a volume with anything on it is not shown as empty.
        const std::uint64_t percent =
            space.totalBytes == 0 ? 0
                                  : (space.usedBytes / 1024 * 100 + space.totalBytes / 1024) /
                                        (space.totalBytes / 1024 + 1);
        print(fmt::format("{:>16} {:>16} {:>16} {:>5}  image\n", "size", "used", "free", "used"));
        print(fmt::format("{:>16} {:>16} {:>16} {:>4}%  {}\n", amount(space.totalBytes),
                          amount(space.usedBytes), amount(space.freeBytes), percent,
                          shown(command.volume.image)));
    });
}

} // namespace

void defineDf(CLI::App& command) {
    const auto arguments = std::make_shared<VolumeCommand>();
    freeLetterOfHelp(command);
    addVolume(command, arguments->volume);
    addFlag(command, "-h", arguments->humanSizes, "Sizes like 1.5 MiB");
    addJSON(command, arguments->json);
    setWork(command, [arguments] { runDf(*arguments); });
}

void defineProbe(CLI::App& command) {
    const auto arguments = defineVolumeCommand(command);
    setWork(command, [arguments] { runProbe(*arguments); });
}

void defineInfo(CLI::App& command) {
    const auto arguments = defineVolumeCommand(command);
    addFlag(command, "--stats", arguments->statistics,
            "Also the device and cache counters since the volume was opened");
    setWork(command, [arguments] { runInfo(*arguments); });
}

void defineLabel(CLI::App& command) {
    const auto arguments = defineVolumeCommand(command);
    addArgument(command, "NEW", arguments->newLabel, "The new label");
    setWork(command, [arguments] { runLabel(*arguments); });
}

} // namespace tavelin::cli
