// driver_crash [--seed N]: cuts the power at every write that the system's FUSE driver, ntfs-3g,
// makes for single changes, and prints what Tavelin finds of them. Mounts, as root.
#include "Benchmarks/crash/driver_recording.hpp"
#include "Benchmarks/crash/findings.hpp"
#include "lab/independent_check.hpp"

#include <fmt/format.h>

#include <cstdlib>
#include <string_view>

namespace {

using namespace tavelin::test;

CrashReport tryDriver(const Bytes& base, const Script& script, const Recording& recording,
                      const Cuts& cuts) {
    static const IndependentCheck check(base);
    CrashReport report;
    report.scripts = 1;
    report.cutPoints = forEachCut(base, recording, cuts, [&](PowerCut& power) {
        const NextMount mount(std::move(power.image));
        const auto add = [&](const std::string& fault, const std::string& what) {
            report.add(fault, power.cut, script.describe(), power.end, what);
        };
        report.images[power.cut]++;
        report.completed[power.cut] += mount.isCompleted ? 1 : 0;
        if (!mount.refusal.empty()) {
            add(kNotMountable, mount.refusal);
            return;
        }
        for (const auto& [fault, what] : findings(script, recording, power, mount.found)) {
            add(fault, what);
        }
        if (power.cut == Cut::prefix) {
            report.checked++;
            const std::string complaints = check.complaintsAbout(mount.after);
            if (!complaints.empty()) {
                add(kInconsistent, complaints);
            }
        }
    });
    return report;
}

} // namespace

int main(int count, char** words) {
    Cuts cuts;
    if (count == 3 && words[1] == std::string_view("--seed")) {
        cuts.seed = std::strtoull(words[2], nullptr, 10);
    } else if (count != 1) {
        fmt::print(stderr, "usage: driver_crash [--seed N]\n");
        return 2;
    }
    const Bytes base = preparedVolume();
    CrashReport report;
    for (const Script& script : allScripts(false)) {
        if (const auto recording = recordDriver(base, script)) {
            report.add(tryDriver(base, script, *recording, cuts));
        }
    }
    fmt::print("{}", report.table());
    return 0;
}
