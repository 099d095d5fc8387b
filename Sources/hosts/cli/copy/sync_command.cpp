// sync: one directory of the volume and one of the host made alike.
#include "hosts/cli/arguments.hpp"
#include "hosts/cli/command_table.hpp"
#include "hosts/cli/copy/host_directory.hpp"
#include "hosts/cli/copy/tree_sync.hpp"
#include "hosts/cli/report.hpp"
#include "hosts/cli/terminal.hpp"
#include "platform/assert.hpp"
#include "platform/error_numbers.hpp"

#include <fmt/format.h>

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <sys/stat.h>

namespace tavelin::cli {
namespace {

using fskit::FSItemType;

struct SyncCommand {
    VolumeArguments volume;
    std::string direction; ///< "get" or "put"
    std::string source;
    std::string target;
    SyncSettings settings;
    bool noStreams = false;
    bool verbose = false;
    bool quiet = false;
    bool json = false;
};

/// The words of the answer. Programs rely on them.
std::string_view actionName(SyncAction action) {
    switch (action) {
    case SyncAction::create:
        return "create";
    case SyncAction::replace:
        return "replace";
    case SyncAction::update:
        return "update";
    case SyncAction::remove:
        return "remove";
    case SyncAction::keep:
        break;
    }
    return "keep";
}

/// What is done to the target, counted and told.
class SyncAnswer {
  public:
    SyncAnswer(const SyncCommand& command, CopyRun& run) : command_(command), run_(run) {}

    void tell(SyncAction action, const std::string& path, std::uint64_t bytes) {
        ++counts_[static_cast<std::size_t>(action)];
        bytes_ += bytes;
        if (action == SyncAction::keep) {
            return;
        }
        if (command_.json) {
            addItem(JSONObject()
                        .add("path", rooted(path))
                        .add("action", actionName(action))
                        .add("size", bytes));
        } else if (command_.verbose || command_.settings.dryRun) {
            run_.bar.clear();
            print(fmt::format("{:<8} {}\n", actionName(action), shown(path)));
        }
    }

    [[nodiscard]] bool hasChanges() const noexcept {
        return count(SyncAction::create) + count(SyncAction::replace) + count(SyncAction::update) +
                   count(SyncAction::remove) >
               0;
    }

    /// Says what came of it all.
    void summarise() const {
        if (command_.json) {
            setSummary(JSONObject()
                           .add("created", count(SyncAction::create))
                           .add("replaced", count(SyncAction::replace))
                           .add("updated", count(SyncAction::update))
                           .add("removed", count(SyncAction::remove))
                           .add("unchanged", count(SyncAction::keep))
                           .add("bytes", bytes_)
                           .add("dryRun", command_.settings.dryRun));
        } else if (isOutputTerminal() && !command_.quiet) {
            print(fmt::format("{}{} new, {} replaced ({}), {} updated, {} removed, {} unchanged\n",
                              command_.settings.dryRun ? "would be: " : "",
                              count(SyncAction::create), count(SyncAction::replace),
                              humanSize(bytes_), count(SyncAction::update),
                              count(SyncAction::remove), count(SyncAction::keep)));
        }
    }

  private:
    [[nodiscard]] std::uint64_t count(SyncAction action) const noexcept {
        return counts_[static_cast<std::size_t>(action)];
    }

    const SyncCommand& command_;
    CopyRun& run_;
    std::array<std::uint64_t, static_cast<std::size_t>(SyncAction::keep) + 1> counts_{};
    std::uint64_t bytes_ = 0;
};

// ---- The two directories -----------------------------------------------------------------------

HostTree::Directory openHost(const std::string& path) {
    FileDescriptor opened(path.c_str(), O_RDONLY | O_DIRECTORY);
    if (!opened) {
        throwHostError(path);
    }
    return {std::move(opened), path};
}

VolumeTree::Directory openVolume(VolumeClient& volume, const std::string& path) {
    Found found = valueOf(resolve(volume, path), path);
    if (found.attributes.type() != FSItemType::directory) {
        throwItemError(path, kENOTDIR);
    }
    return {std::move(found.item), lastComponent(path).empty() ? "" : path};
}

/// The target on the host, made when it is missing; absent when a dry run would make it.
std::optional<HostTree::Directory> hostTarget(const SyncCommand& command) {
    struct ::stat status {};
    if (stat(command.target.c_str(), &status) != 0 && errno == ENOENT) {
        if (command.settings.dryRun) {
            return std::nullopt;
        }
        if (mkdir(command.target.c_str(), 0777) != 0) {
            throwHostError(command.target);
        }
    }
    return openHost(command.target);
}

/// The target on the volume, as above.
std::optional<VolumeTree::Directory> volumeTarget(VolumeClient& volume,
                                                  const SyncCommand& command) {
    const auto there = resolve(volume, command.target);
    if (there || numberOf(there.error()) != kENOENT) {
        return openVolume(volume, command.target);
    }
    const Location place = valueOf(locate(volume, command.target), command.target);
    if (command.settings.dryRun) {
        return std::nullopt;
    }
    return VolumeTree::Directory{
        valueOf(volume.create(place.directory, place.name, FSItemType::directory), command.target)
            .item,
        command.target};
}

// ---- The work ----------------------------------------------------------------------------------

/// Goes through both trees once. With a `bar` only the bytes to copy are added up, for it.
template<typename From, typename To>
void run(const SyncCommand& command, VolumeClient& volume, CopyRun& copies, SyncAnswer& answer,
         From from, To to, const typename From::Directory& source,
         const typename To::Directory* target, bool plans) {
    ItemCopier copier(volume, copies);
    SyncSettings settings = command.settings;
    settings.dryRun |= plans;
    SyncObserver observer = [&](SyncAction action, const std::string& path, std::uint64_t bytes) {
        if (plans) {
            copies.bar.expect(bytes);
        } else {
            answer.tell(action, path, bytes);
        }
    };
    TreeSync<From, To> sync(from, to, copier, settings, std::move(observer),
                            [&](const ItemFailure& failure) {
                                if (!plans) {
                                    copies.problem(failure);
                                }
                            });
    try {
        sync.sync(source, target);
    } catch (const ItemFailure& failure) { // of the whole source or target
        if (!plans) {
            throw;
        }
    }
}

/// The bar needs to know how much there is to copy. Comparing contents twice would cost more than
/// the bar is worth.
bool isPlanned(const SyncCommand& command, const CopyRun& copies) {
    return copies.bar.isShown() && !command.settings.dryRun && !command.settings.checksum;
}

void runGet(const SyncCommand& command, Session& session, CopyRun& copies, SyncAnswer& answer) {
    VolumeClient& volume = session.volume();
    const VolumeTree::Directory source = openVolume(volume, command.source);
    const auto target = hostTarget(command);
    const HostTree::Directory* const there = target ? &*target : nullptr;
    for (const bool plans : {true, false}) {
        if (!plans || isPlanned(command, copies)) {
            run(command, volume, copies, answer, VolumeTree(volume, copies.settings.quiet),
                HostTree(copies), source, there, plans);
        }
    }
    if (target && answer.hasChanges() && !command.settings.dryRun) {
        syncHost(target->descriptor.get(), command.target);
    }
}

void runPut(const SyncCommand& command, Session& session, CopyRun& copies, SyncAnswer& answer) {
    VolumeClient& volume = session.volume();
    const HostTree::Directory source = openHost(command.source);
    const auto target = volumeTarget(volume, command);
    const VolumeTree::Directory* const there = target ? &*target : nullptr;
    for (const bool plans : {true, false}) {
        if (!plans || isPlanned(command, copies)) {
            run(command, volume, copies, answer, HostTree(copies),
                VolumeTree(volume, copies.settings.quiet), source, there, plans);
        }
    }
}

void runSync(SyncCommand& command) {
    command.settings.streams = !command.noStreams;
    CopySettings settings;
    settings.streams = command.settings.streams;
    settings.quiet = command.quiet || command.json;
    settings.image = imageStatus(command.volume.image, command.volume.offset);
    const bool puts = command.direction == "put";
    takeInterruptions();
    CopyRun copies(settings);
    SyncAnswer answer(command, copies);
    const Access access = puts && !command.settings.dryRun ? Access::change : Access::read;
    withVolume(command.volume, access, [&](Session& session) {
        (puts ? runPut : runGet)(command, session, copies, answer);
        copies.end();
    });
    answer.summarise();
}

} // namespace

void defineSync(CLI::App& command) {
    const auto arguments = std::make_shared<SyncCommand>();
    addChoice(command, "DIRECTION", arguments->direction, {"get", "put"},
              "get: from the volume to this system; put: the other way");
    addVolume(command, arguments->volume);
    addArgument(command, "SOURCE", arguments->source, "The directory whose contents are copied");
    addArgument(command, "TARGET", arguments->target,
                "The directory that becomes like it; made when it is missing");
    addFlag(command, "-n,--dry-run", arguments->settings.dryRun,
            "Change nothing, say what would be done");
    addFlag(command, "--delete", arguments->settings.deletes,
            "Remove from TARGET what SOURCE does not have");
    addFlag(command, "--checksum", arguments->settings.checksum,
            "Compare contents, not only sizes and times");
    addTexts(command, "--exclude", arguments->settings.excluded, "PATTERN",
             "Leave these out on both sides, may be given several times");
    addFlag(command, "--no-streams", arguments->noStreams, "Leave named streams out");
    addFlag(command, "-v,--verbose", arguments->verbose, "Say what is done");
    addFlag(command, "-q,--quiet", arguments->quiet, "No progress bar and no summary");
    addJSON(command, arguments->json);
    setWork(command, [arguments] { runSync(*arguments); });
}

} // namespace tavelin::cli
