#include "lab/power_cut.hpp"

#include "hosting/module_host.hpp"
#include "lab/host_disk.hpp"
#include "lab/independent_check.hpp"
#include "lab/structural_check.hpp"
#include "support/replaced_services.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <random>
#include <span>

namespace tavelin::test {

std::uint64_t forEachCut(const Bytes& base, const Recording& recording, const Cuts& cuts,
                         const std::function<void(PowerCut&)>& work) {
    const auto& [events, states, points] = recording;
    std::mt19937_64 random(cuts.seed);
    std::uint64_t cutPoints = 0;
    std::size_t persisted = 0;
    for (std::size_t end = 0; end <= events.size(); end++) {
        for (std::size_t i = 0; i < points.size(); i++) {
            persisted = points[i] <= end ? i : persisted;
        }
        const bool isPersistencePoint =
            std::find(points.begin(), points.end(), end) != points.end();
        const bool isFlush = end > 0 && events[end - 1].flush;
        if (isFlush && !isPersistencePoint) {
            continue; // the medium is as it was, and so is what must be on it
        }
        cutPoints++;
        for (const Cut cut : cuts.kinds) {
            const unsigned times = cut == Cut::reordered ? cuts.reorderings : 1;
            const bool isNew = cut == Cut::dropped  ? isPersistencePoint && end > 0
                               : cut == Cut::prefix ? !isFlush
                                                    : end > 0 && !isFlush;
            for (unsigned i = 0; i < times && isNew; i++) {
                PowerCut power{end, cut, afterCut(base, events, end, cut, random), persisted};
                work(power);
            }
        }
    }
    return cutPoints;
}

NextMount::NextMount(Bytes image) {
    const ReplacedServices services;
    const auto disk = recordingDisk(std::move(image));
    ModuleHost host(disk);
    try {
        host.open();
    } catch (const OpenError& error) {
        refusal = error.what();
        return;
    }
    refusal = host.volume().isReadOnly() ? "read-only" : "";
    isCompleted = !disk->events.empty();
    found = takeSnapshot(host.volume());
    host.close().get();
    after = disk->bytes;
    events = disk->events;
}

CrashReport tryRecording(const Bytes& base, const Script& script, const Recording& recording,
                         const Cuts& cuts) {
    static const IndependentCheck check(base);
    CrashReport report;
    report.scripts = 1;
    report.cutPoints = forEachCut(base, recording, cuts, [&](PowerCut& power) {
        const NextMount mount(std::move(power.image));
        const auto complain = [&](const char* fault, const std::string& what) {
            report.add(fault, power.cut, script.describe(), power.end, what);
        };
        report.images[power.cut]++;
        report.completed[power.cut] += mount.isCompleted ? 1 : 0;
        if (!mount.refusal.empty()) {
            complain(kNotMountable, mount.refusal);
            return;
        }
        const auto moments = std::span(recording.states).subspan(power.persisted);
        const bool isNewer = hasNewerBytes(moments, mount.found);
        report.newer[power.cut] += isNewer ? 1 : 0;
        if (!isNewer && std::find(moments.begin(), moments.end(), mount.found) == moments.end()) {
            complain(kNotAtomic, difference(moments.front(), mount.found));
        }
        std::string complaints = structuralComplaints(std::span(mount.after));
        const std::size_t left = recording.events.size() - power.end;
        if (power.cut == Cut::prefix && left % cuts.imagesPerCheck == 0) {
            report.checked++;
            complaints += check.complaintsAbout(mount.after);
        }
        if (!complaints.empty()) {
            complain(kInconsistent, complaints);
        }
    });
    return report;
}

CrashReport tryScript(const Bytes& base, const Script& script, const Cuts& cuts) {
    return tryRecording(base, script, recordTavelin(base, script), cuts);
}

CrashReport tryRecoveries(const Bytes& base, const Script& script, const Cuts& cuts) {
    CrashReport report;
    report.scripts = 1;
    const Cuts first{{Cut::prefix}};
    const Cuts second{{Cut::prefix, Cut::torn, Cut::reordered}, cuts.reorderings, 1, cuts.seed};
    forEachCut(base, recordTavelin(base, script), first, [&](const PowerCut& power) {
        const NextMount whole(power.image);
        if (!whole.isCompleted) {
            return;
        }
        const Recording recovery{whole.events, {}, {}};
        report.cutPoints += forEachCut(power.image, recovery, second, [&](PowerCut& again) {
            const NextMount mount(std::move(again.image));
            report.images[again.cut]++;
            report.completed[again.cut] += mount.isCompleted ? 1 : 0;
            if (mount.after != whole.after) {
                report.add(kOtherwise, again.cut,
                           fmt::format("{}: cut after event {}", script.describe(), power.end),
                           again.end, mount.refusal + difference(whole.found, mount.found));
            }
        });
    });
    return report;
}

std::vector<Script> allScripts(bool pairs) {
    std::vector<Script> scripts;
    for (const Finish finish : {Finish::nothing, Finish::synchronise, Finish::unmount}) {
        for (const Workload& first : allChanges()) {
            scripts.push_back({{&first}, finish});
            for (const Workload& second : allChanges()) {
                if (pairs) {
                    scripts.push_back({{&first, &second}, finish});
                }
            }
        }
    }
    return scripts;
}

} // namespace tavelin::test
