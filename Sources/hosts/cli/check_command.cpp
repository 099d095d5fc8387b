// check: what the structural check finds, for a person or for a program.
#include "check/check.hpp"
#include "core/ntfs_error.hpp"
#include "hosting/image_file.hpp"
#include "hosting/open_error.hpp"
#include "hosts/cli/arguments.hpp"
#include "hosts/cli/command_table.hpp"
#include "hosts/cli/image_device.hpp"
#include "hosts/cli/report.hpp"
#include "hosts/cli/terminal.hpp"
#include "hosts/cli/text.hpp"
#include "platform/error_numbers.hpp"

#ifdef TAVELIN_FUSE
#include "hosts/fuse/mount/commands.hpp"
#endif

#include <fmt/format.h>

#include <memory>
#include <optional>

namespace tavelin::cli {
namespace {

struct CheckCommand {
    VolumeArguments volume;
    bool json = false;
    bool deep = false;
    bool quick = false;
    bool verify = false;
    bool repair = false;
};

/// The image as the check reads it. Members are destroyed from the last to the first, so the device
/// closes before the lock is released.
struct CheckedImage {
    std::unique_ptr<ImageFile> lock; ///< keeps other programs from changing it meanwhile
    std::shared_ptr<JournaledDevice> device;
    bool isServed = false; ///< by a mount of ours
    std::vector<std::string> notes;
};

/// A mounted image is checked without the lock, as its owner may want to know while it serves. What
/// a mount of ours still has in memory is written first.
void noteUse(CheckedImage& opened, [[maybe_unused]] const ImagePlace& place) {
#ifdef TAVELIN_FUSE
    for (const fusehost::MountOfImage& mount : fusehost::synchronizeMountsOf(place.path)) {
        opened.isServed = true;
        const std::string written =
            mount.synchronizeError == 0
                ? "everything that waited there was written to the image first"
                : fmt::format("what waits there could not be written first ({})",
                              errorText(fromHost(mount.synchronizeError)));
        opened.notes.push_back(fmt::format("it is mounted on {}: {}, and what changes meanwhile "
                                           "may look like a fault",
                                           escaped(mount.directory.string()), written));
    }
#endif
    if (!opened.isServed) {
        opened.notes.emplace_back(
            "another program has it open, perhaps as a mount: it is read as the last flush left "
            "it, and what changes meanwhile may look like a fault");
    }
}

/// Opens the image with its journal replayed in memory. The check sees the volume that the next
/// mount will see, and the image keeps every byte.
CheckedImage openForCheck(const std::string& image, const ImagePlace& place) {
    CheckedImage opened;
    try {
        opened.lock = std::make_unique<ImageFile>(place.path, true);
    } catch (const OpenError& error) {
        if (error.reason() != OpenError::Reason::inUse) {
            throw Failure(openFailure(error, place), ExitStatus::unreadable);
        }
        noteUse(opened, place);
    }
    try {
        opened.device = openDevice(place);
    } catch (const NTFSError& error) {
        throw Failure(fmt::format("{}: {}", escaped(image), errorText(error.code)),
                      ExitStatus::unreadable);
    }
    // The journal of a mount that goes on is no sign of an interruption.
    if (opened.device->recovered() > 0 && !opened.isServed) {
        opened.notes.emplace_back("a flush was interrupted: the volume is checked as the next "
                                  "mount will make it from the journal");
    }
    if (opened.device->wasRefused()) {
        opened.notes.push_back(fmt::format("the volume {}", JournaledDevice::kRefusal));
    }
    return opened;
}

JSONObject asJSON(const check::Finding& finding) {
    const check::ClassInfo& about = check::info(finding.kind);
    JSONObject result;
    result.add("class", about.name).add("severity", check::text(about.severity));
    if (finding.record) {
        result.add("record", *finding.record);
    }
    if (!finding.path.empty()) {
        result.add("path", finding.path);
    }
    return result.add("meaning", about.meaning)
        .add("expected", finding.expected)
        .add("found", finding.found)
        .add("chkdsk", about.chkdsk);
}

void printFinding(const check::Finding& finding) {
    const check::ClassInfo& about = check::info(finding.kind);
    std::string where = finding.record ? fmt::format("record {}", *finding.record) : "the volume";
    if (!finding.path.empty()) {
        where = fmt::format("{} ({})", shown(finding.path), where);
    }
    print(fmt::format("{}: {}: {}\n"
                      "    {}: expected {}; found {}\n"
                      "    chkdsk /f {}\n",
                      painted(check::text(about.severity), Colour::strong), where, about.meaning,
                      about.name, escaped(finding.expected), escaped(finding.found), about.chkdsk));
}

void printSummary(const std::string& image, const check::Report& report) {
    for (const std::string& note : report.notes) {
        print(fmt::format("note: {}\n", note));
    }
    print(fmt::format("{}: {} directories, {} files, {} of {} clusters used\n", shown(image),
                      report.directories, report.files, report.clustersUsed, report.clusters));
    if (report.isClean()) {
        print(fmt::format("{}: nothing is wrong\n", shown(image)));
        return;
    }
    for (std::size_t i = 0; i < report.counts.size(); ++i) {
        if (report.counts[i] > 0) {
            print(fmt::format("{:>9}  {}\n", report.counts[i],
                              check::info(static_cast<check::FindingClass>(i)).name));
        }
    }
    using enum check::Severity;
    print(fmt::format("{}: {} findings: {} put data at risk, {} are wrong, {} cosmetic\n",
                      shown(image), report.total(), report.total(dataAtRisk), report.total(wrong),
                      report.total(cosmetic)));
}

JSONObject summaryJSON(const std::string& image, const check::Report& report) {
    JSONObject counts;
    for (std::size_t i = 0; i < report.counts.size(); ++i) {
        if (report.counts[i] > 0) {
            counts.add(check::info(static_cast<check::FindingClass>(i)).name, report.counts[i]);
        }
    }
    return JSONObject()
        .add("image", image)
        .add("clean", report.isClean())
        .add("findings", report.total())
        .add("dataAtRisk", report.total(check::Severity::dataAtRisk))
        .add("counts", counts)
        .add("directories", report.directories)
        .add("files", report.files)
        .add("clusters", report.clusters)
        .add("clustersUsed", report.clustersUsed)
        .add("notes", report.notes);
}

/// The module's own check, which asks whether the volume can be loaded. Absent when it can.
std::optional<std::string> moduleRefusal(const CheckCommand& command, const char* word) {
    std::optional<std::string> refusal;
    try {
        withVolume(command.volume, Access::read, [&](Session& session) {
            valueOf(session.host().check({word}), command.volume.image);
        });
    } catch (const Failure& failure) {
        refusal = failure.what();
    }
    return refusal;
}

void runQuick(const CheckCommand& command) {
    if (const auto refusal = moduleRefusal(command, "-q")) {
        throw Failure(*refusal);
    }
    if (command.json) {
        setSummary(JSONObject().add("image", command.volume.image).add("usable", true));
    } else {
        print(fmt::format("{}: can be used. Its structures were not examined: leave out -q.\n",
                          shown(command.volume.image)));
    }
}

check::Report examine(const CheckCommand& command, BlockDevice& device) {
    ProgressBar bar(command.json);
    std::uint64_t done = 0;
    std::uint64_t total = 0;
    check::Options options;
    options.deep = command.deep;
    // The check reports totals, and the bar takes increments.
    options.onProgress = [&](const check::Progress& progress) {
        throwIfInterrupted();
        bar.expect(progress.total - std::exchange(total, progress.total));
        bar.begin(progress.phase);
        bar.advance(progress.done - std::exchange(done, progress.done));
        return true;
    };
    options.onFinding = [&](const check::Finding& finding) {
        // Findings share the terminal with the bar.
        bar.clear();
        if (command.json) {
            addItem(asJSON(finding));
        } else {
            printFinding(finding);
        }
    };
    return check::checkVolume(device, options);
}

void runCheck(const CheckCommand& command) {
    if (command.repair) {
        throw Failure("repairing is not offered: use 'chkdsk /f' in Windows");
    }
    if (command.quick && !command.deep && !command.verify) {
        return runQuick(command);
    }
    const std::string& image = command.volume.image;
    takeInterruptions();
    CheckedImage opened = openForCheck(image, findVolume(image, command.volume.offset));
    check::Report report = examine(command, *opened.device);
    // moduleRefusal() opens the image again and needs its lock.
    opened.device.reset();
    opened.lock.reset();
    if (!report.unreadable.empty()) {
        throw Failure(fmt::format("{}: {}", escaped(image), report.unreadable),
                      ExitStatus::unreadable);
    }
    report.notes.insert(report.notes.begin(), opened.notes.begin(), opened.notes.end());
    // A mounted volume can be used, as it shows, and would refuse to be opened once more.
    const auto refusal = opened.isServed ? std::nullopt : moduleRefusal(command, "-n");
    if (command.json) {
        setSummary(summaryJSON(image, report).add("usable", !refusal.has_value()));
    } else {
        printSummary(image, report);
        if (refusal) {
            print(fmt::format("{}: cannot be used now: {}\n", shown(image), *refusal));
        }
    }
    if (!report.isClean()) {
        // The findings are printed. The Failure carries only the exit status.
        flushOutput();
        throw Failure("");
    }
}

} // namespace

void defineCheck(CLI::App& command) {
    const auto arguments = std::make_shared<CheckCommand>();
    addVolume(command, arguments->volume);
    addJSON(command, arguments->json);
    addFlag(command, "--deep", arguments->deep,
            "Read the content of all files, too, and try to decompress it");
    addFlag(command, "-q", arguments->quick, "Only ask whether the volume can be used");
    addFlag(command, "-n", arguments->verify, "Examine, repair nothing; also without any of these");
    addFlag(command, "-y", arguments->repair, "Repair (not offered: fails)");
    setWork(command, [arguments] { runCheck(*arguments); });
}

} // namespace tavelin::cli
