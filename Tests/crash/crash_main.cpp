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

void printRow(const char* name, const CrashReport& report, const CutCounts& counts) {
    fmt::print("\n{:<38}", name);
    for (const auto& [cut, images] : report.images) {
        fmt::print("{:>14}", counts.contains(cut) ? counts.at(cut) : 0);
    }
}

void print(const CrashReport& report) {
    fmt::print(
        "scripts            {:>10}\ncut points         {:>10}\nstates compared    {:>10}\n\n",
        report.scripts, report.cutPoints, report.persisted);
    fmt::print("{:<38}", "");
    for (const auto& [cut, images] : report.images) {
        fmt::print("{:>14}", kCutNames.at(cut));
    }
    printRow("images", report, report.images);
    printRow("completed by the mount", report, report.completed);
    for (const auto& [fault, name] : kFaultNames) {
        printRow(name, report,
                 report.faults.contains(fault) ? report.faults.at(fault) : CutCounts());
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
