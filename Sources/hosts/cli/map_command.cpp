// map: a picture of the volume, on the terminal or as SVG.
#include "check/volume_map.hpp"
#include "core/driver2/item_identity.hpp"
#include "hosting/paths.hpp"
#include "hosts/cli/arguments.hpp"
#include "hosts/cli/command_table.hpp"
#include "hosts/cli/image_device.hpp"
#include "hosts/cli/report.hpp"
#include "hosts/cli/terminal.hpp"
#include "hosts/cli/text.hpp"
#include "platform/error_numbers.hpp"

#include <fmt/format.h>

#include <memory>

namespace tavelin::cli {
namespace {

using check::VolumeMap;

constexpr std::size_t kColumns = 64;
constexpr std::size_t kRows = 16;
constexpr std::size_t kParts = kColumns * kRows;
constexpr std::size_t kFragmentsShown = 10;

struct MapCommand {
    VolumeArguments volume;
    std::optional<std::string> path;
    bool svg = false;
    bool json = false;
};

/// What a part of the picture stands for: the rarest of what is in it, which would not be seen
/// otherwise.
struct Look {
    char sign;
    Colour colour;
    const char* fill; ///< of SVG
    const char* meaning;
};
constexpr Look kFile{'@', Colour::link, "#c0392b", "the file"};
constexpr Look kMetadata{'M', Colour::directory, "#2f6f9f", "metadata"};
constexpr Look kFull{'#', Colour::strong, "#5b6770", "used"};
constexpr Look kPartly{'+', Colour::plain, "#a7b1b8", "used in part"};
constexpr Look kFree{'.', Colour::faint, "#eceff1", "free"};

const Look& lookOf(const VolumeMap::Part& part) {
    return part.file > 0                ? kFile
           : part.metadata > 0          ? kMetadata
           : part.used == 0             ? kFree
           : part.used == part.clusters ? kFull
                                        : kPartly;
}

std::string pieces(std::uint64_t count) {
    return count == 1 ? "1 piece" : fmt::format("{} pieces", count);
}

std::string sizeOf(const VolumeMap& map, std::uint64_t clusters) {
    return humanSize(clusters * map.clusterBytes);
}

void printPicture(const VolumeMap& map) {
    std::string line;
    for (std::size_t i = 0; i < map.parts.size(); ++i) {
        const Look& look = lookOf(map.parts[i]);
        line += painted(std::string(1, look.sign), look.colour);
        if ((i + 1) % kColumns == 0 || i + 1 == map.parts.size()) {
            print(line + "\n");
            line.clear();
        }
    }
}

void printMap(const VolumeMap& map, const std::optional<std::string>& path) {
    printPicture(map);
    const VolumeMap::Part sum = map.total();
    print("\n");
    const auto row = [&](const Look& look, const std::string& text) {
        print(fmt::format("{} {}\n", painted(std::string(1, look.sign), look.colour), text));
    };
    row(kFull, fmt::format("used {}; {} in part", sizeOf(map, sum.used), kPartly.sign));
    row(kMetadata, fmt::format("metadata {}", sizeOf(map, sum.metadata)));
    row(kFree, fmt::format("free {} in {}, the longest {}", sizeOf(map, sum.clusters - sum.used),
                           map.freeRanges, sizeOf(map, map.freeLongest)));
    if (!path) {
        return;
    }
    row(kFile, fmt::format("{}: {} in {}", shown(*path), sizeOf(map, sum.file),
                           pieces(map.fragments.size())));
    for (std::size_t i = 0; i < std::min(map.fragments.size(), kFragmentsShown); ++i) {
        print(fmt::format("  {:>12} at byte {}\n", sizeOf(map, map.fragments[i].count),
                          map.fragments[i].first * map.clusterBytes));
    }
    if (map.fragments.size() > kFragmentsShown) {
        print(fmt::format("  … and {} more\n", map.fragments.size() - kFragmentsShown));
    }
}

void printSVG(const VolumeMap& map) {
    constexpr std::size_t kCell = 12;
    constexpr std::size_t kLegend = 30;
    const std::size_t rows = (map.parts.size() + kColumns - 1) / kColumns;
    print(fmt::format("<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"{0}\" height=\"{1}\" "
                      "viewBox=\"0 0 {0} {1}\" font-family=\"sans-serif\" font-size=\"12\">\n"
                      "<rect width=\"{0}\" height=\"{1}\" fill=\"#fff\"/>\n",
                      kColumns * kCell, rows * kCell + kLegend));
    for (std::size_t i = 0; i < map.parts.size(); ++i) {
        print(fmt::format("<rect x=\"{}\" y=\"{}\" width=\"{}\" height=\"{}\" fill=\"{}\"/>\n",
                          i % kColumns * kCell, i / kColumns * kCell, kCell - 1, kCell - 1,
                          lookOf(map.parts[i]).fill));
    }
    std::size_t across = 0;
    for (const Look* look : {&kFull, &kPartly, &kMetadata, &kFree, &kFile}) {
        constexpr std::size_t kEntry = 120;
        const std::size_t top = rows * kCell + kCell;
        print(fmt::format("<rect x=\"{}\" y=\"{}\" width=\"{}\" height=\"{}\" fill=\"{}\"/>"
                          "<text x=\"{}\" y=\"{}\">{}</text>\n",
                          across, top, kCell - 1, kCell - 1, look->fill, across + kCell + 4,
                          top + kCell - 2, look->meaning));
        across += kEntry;
    }
    print("</svg>\n");
}

void addMap(const VolumeMap& map) {
    const VolumeMap::Part sum = map.total();
    std::vector<JSONObject> parts;
    for (const VolumeMap::Part& part : map.parts) {
        parts.push_back(JSONObject()
                            .add("clusters", part.clusters)
                            .add("used", part.used)
                            .add("metadata", part.metadata)
                            .add("file", part.file));
    }
    std::vector<JSONObject> fragments;
    for (const VolumeMap::Range& range : map.fragments) {
        fragments.push_back(JSONObject()
                                .add("offset", range.first * map.clusterBytes)
                                .add("bytes", range.count * map.clusterBytes));
    }
    addItem(JSONObject()
                .add("clusterSize", map.clusterBytes)
                .add("clusters", sum.clusters)
                .add("used", sum.used)
                .add("metadata", sum.metadata)
                .add("freePieces", map.freeRanges)
                .add("freeLongest", map.freeLongest)
                .add("parts", parts)
                .add("fragments", fragments));
}

std::optional<std::uint64_t> recordOf(Session& session, const MapCommand& command) {
    if (!command.path) {
        return std::nullopt;
    }
    const Found found =
        valueOf(resolve(session.volume(), *command.path, LastLink::keep), *command.path);
    return recordNumber(Driver2::ino(found.attributes.fileID()));
}

void runMap(const MapCommand& command) {
    withVolume(command.volume, Access::read, [&](Session& session) {
        const auto device = openDevice(session.place());
        const auto map = check::readVolumeMap(*device, kParts, recordOf(session, command));
        if (!map) {
            throw Failure(escaped(command.volume.image) +
                          ": the volume's bitmap cannot be read: 'tavelin check' says more");
        }
        if (command.json) {
            addMap(*map);
        } else if (command.svg) {
            printSVG(*map);
        } else {
            printMap(*map, command.path);
        }
    });
}

} // namespace

void defineMap(CLI::App& command) {
    const auto arguments = std::make_shared<MapCommand>();
    addVolume(command, arguments->volume);
    addArgument(command, "PATH", arguments->path, "A file whose pieces are shown, too");
    addFlag(command, "--svg", arguments->svg, "Write the picture as SVG");
    addJSON(command, arguments->json);
    setWork(command, [arguments] { runMap(*arguments); });
}

} // namespace tavelin::cli
