// crash_lab [--pairs] [--seed N] [--driver]: cuts the power at every write of many small scripts
// and prints what was left. --driver does the same to the system's FUSE driver, ntfs-3g, with
// single operations. Exits 1 when anything was wrong with any image.
#include "crash/driver_recording.hpp"
#include "crash/power_cut.hpp"

#include <fmt/core.h>

#include <cstdlib>
#include <string_view>

namespace {

using namespace tavelin::test;

void print(const CrashReport& report) {
    fmt::print(
        "scripts            {:>10}\ncut points         {:>10}\nstates compared    {:>10}\n\n",
        report.scripts, report.cutPoints, report.persisted);
    const auto countOf = [](const auto& counts, const auto& key) {
        const auto at = counts.find(key);
        return at == counts.end() ? 0 : at->second;
    };
    fmt::print("{:<38}", "");
    for (const auto& [cut, images] : report.images) {
        fmt::print("{:>14}", cutName(cut));
    }
    fmt::print("\n{:<38}", "images");
    for (const auto& [cut, images] : report.images) {
        fmt::print("{:>14}", images);
    }
    fmt::print("\n{:<38}", "completed by the mount");
    for (const auto& [cut, images] : report.images) {
        fmt::print("{:>14}", countOf(report.completed, cut));
    }
    for (const Fault fault : kAllFaults) {
        fmt::print("\n{:<38}", faultName(fault));
        for (const auto& [cut, images] : report.images) {
            const auto at = report.faults.find(cut);
            fmt::print("{:>14}", at == report.faults.end() ? 0 : countOf(at->second, fault));
        }
    }
    fmt::print("\n\nchecked independently {:>7}\n", report.checked);
    for (const auto& [complaint, images] : report.complaints) {
        fmt::print("{:>10}  {}\n", images, complaint);
    }
    for (const std::string& example : report.examples) {
        fmt::print("  {}\n", example);
    }
}

} // namespace

int main(int count, char** words) {
    bool pairs = false;
    bool driver = false;
    Cuts cuts;
    for (int i = 1; i < count; i++) {
        const std::string_view word = words[i];
        if (word == "--pairs") {
            pairs = true;
        } else if (word == "--driver") {
            driver = true;
        } else if (word == "--seed" && i + 1 < count) {
            cuts.seed = std::strtoull(words[++i], nullptr, 10);
        } else {
            fmt::print(stderr, "usage: crash_lab [--pairs] [--seed N] [--driver]\n");
            return 2;
        }
    }
    const Bytes base = preparedVolume();
    cuts.imagesPerCheck = pairs ? 16 : 1;
    CrashReport report;
    for (const Script& script : allScripts(pairs && !driver)) {
        if (!driver) {
            report.add(tryScript(base, script, cuts));
        } else if (const auto recording = recordDriver(base, script)) {
            report.add(tryRecording(base, script, *recording, cuts));
        }
    }
    print(report);
    return report.isSound() ? 0 : 1;
}
