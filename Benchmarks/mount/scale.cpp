#include "Benchmarks/mount/scale.hpp"

#include "Benchmarks/mount/file_calls.hpp"
#include "Benchmarks/mount/workloads.hpp"
#include "support/run_process.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <stdexcept>
#include <string_view>

namespace tavelin::bench {

namespace fs = std::filesystem;

namespace {

struct Step {
    double cost = 0;         // nanoseconds a unit
    uint64_t peakMemory = 0; // bytes
};
using Steps = std::vector<std::pair<std::string, Step>>;

void format(const fs::path& image) {
    test::runOrThrow({"mkntfs", "-q", "-Q", "-F", image});
}

Steps entrySteps(const Server& server, const fs::path& image, const fs::path& directory,
                 int count) {
    format(image);
    auto mounted = std::make_unique<MountedServer>(server, image, directory);
    const std::string root = directory.string() + "/one";
    check(::mkdir(root.c_str(), 0777) == 0, root);
    const auto path = [&](int i) { return fmt::format("{}/entry{:06}", root, i); };
    Steps steps;
    const auto step = [&](const char* name, const std::function<void()>& work) {
        const double seconds = timed(work);
        steps.push_back({name, {seconds / count * 1e9, mounted->peakMemory()}});
    };
    const auto remount = [&] {
        mounted->unmount();
        mounted = std::make_unique<MountedServer>(server, image, directory);
    };
    step("create", [&] {
        for (int i = 0; i < count; ++i)
            File(path(i), O_WRONLY | O_CREAT | O_EXCL);
    });
    remount();
    step("look up", [&] {
        for (int i = 0; i < count; ++i)
            (void)statusOf(path(i));
    });
    remount();
    step("list", [&] {
        if (namesIn(root).size() != static_cast<size_t>(count))
            throw std::runtime_error("wrong number of entries");
    });
    step("remove", [&] {
        for (int i = 0; i < count; ++i)
            check(::unlink(path(i).c_str()) == 0, path(i));
    });
    mounted->unmount();
    return steps;
}

Steps byteSteps(const Server& server, const fs::path& image, const fs::path& directory,
                int mebibytes) {
    constexpr int kMiB = 1 << 20;
    format(image);
    auto mounted = std::make_unique<MountedServer>(server, image, directory);
    const std::string path = directory.string() + "/large";
    std::string block(kMiB, 'x');
    Steps steps;
    const auto step = [&](const char* name, const std::function<void()>& work) {
        const double seconds = timed(work);
        steps.push_back({name, {seconds / (mebibytes * 1024.0) * 1e9, mounted->peakMemory()}});
    };
    step("write", [&] {
        File file(path, O_WRONLY | O_CREAT);
        for (int i = 0; i < mebibytes; ++i)
            file.write(block, off_t{i} * kMiB);
        file.sync();
    });
    mounted->unmount();
    mounted = std::make_unique<MountedServer>(server, image, directory);
    step("read", [&] {
        File file(path, O_RDONLY);
        for (int i = 0; i < mebibytes; ++i)
            if (file.read(block, off_t{i} * kMiB) != kMiB)
                throw std::runtime_error("short file");
    });
    mounted->unmount();
    return steps;
}

constexpr double kGrowthMax = 2;
constexpr uint64_t kMemoryBytesMax = 64 << 20; // bytes, besides those of entries
constexpr uint64_t kMemoryPerEntryMax = 200;

// Appends a table to `scale`; a unit of size may cost the server `bytesAUnit` of memory.
void addTable(Scale& scale, const char* unit, const std::vector<int>& sizes, const char* sizeUnit,
              uint64_t bytesAUnit, const std::function<Steps(int)>& measureSize) {
    std::string head = fmt::format("| {} |", unit), rule = "|---|", peaks = "| peak memory, MiB |";
    std::vector<Steps> all;
    bool fits = true;
    const auto verdict = [&](bool holds) {
        scale.asAimed &= holds;
        return holds ? "yes" : "**no**";
    };
    for (const int size : sizes) {
        all.push_back(measureSize(size));
        head += fmt::format(" {} {} |", size, sizeUnit);
        rule += "---:|";
        uint64_t peak = 0;
        for (const auto& [name, step] : all.back())
            peak = std::max(peak, step.peakMemory);
        peaks += fmt::format(" {:.1f} |", static_cast<double>(peak) / (1 << 20));
        fits &= peak <= kMemoryBytesMax + bytesAUnit * static_cast<uint64_t>(size);
    }
    scale.tables += head + " largest against smallest | as aimed |\n" + rule + "---:|---|\n";
    for (size_t row = 0; row < all.front().size(); ++row) {
        scale.tables += fmt::format("| {} |", all.front()[row].first);
        for (const Steps& steps : all)
            scale.tables += fmt::format(" {:.0f} |", steps[row].second.cost);
        const double growth = all.back()[row].second.cost / all.front()[row].second.cost;
        scale.tables += fmt::format(" {:.2f} | {} |\n", growth, verdict(growth <= kGrowthMax));
    }
    scale.tables += fmt::format("{} | {} |\n\n", peaks, verdict(fits));
}

// What an entry of a very large directory may cost, in nanoseconds.
constexpr std::pair<const char*, double> kCostMax[] = {
    {"create", 60'000}, {"look up", 30'000}, {"list", 1'000}};

} // namespace

Scale measureEntries(const Server& server, const fs::path& image, const fs::path& directory,
                     int count) {
    Scale scale;
    const auto verdict = [&](bool holds) {
        scale.asAimed &= holds;
        return holds ? "yes" : "**no**";
    };
    const Steps steps = entrySteps(server, image, directory, count);
    scale.tables = fmt::format("| {} entries | nanoseconds an entry | aim | as aimed |\n"
                               "|---|---:|---:|---|\n",
                               count);
    uint64_t peak = 0;
    for (const auto& [name, step] : steps) {
        const auto* const aim = std::ranges::find(
            kCostMax, name, [](const auto& aimed) { return std::string_view(aimed.first); });
        const bool isAimed = aim != std::end(kCostMax);
        scale.tables += fmt::format("| {} | {:.0f} | {} | {} |\n", name, step.cost,
                                    isAimed ? fmt::format("{:.0f}", aim->second) : "",
                                    isAimed ? verdict(step.cost <= aim->second) : "");
        peak = std::max(peak, step.peakMemory);
    }
    const uint64_t peakMax = kMemoryBytesMax + kMemoryPerEntryMax * static_cast<uint64_t>(count);
    scale.tables += fmt::format("| peak memory, MiB | {:.1f} | {:.1f} | {} |\n",
                                static_cast<double>(peak) / (1 << 20),
                                static_cast<double>(peakMax) / (1 << 20), verdict(peak <= peakMax));
    return scale;
}

Scale measureScale(const Server& server, const fs::path& image, const fs::path& directory,
                   bool quick) {
    const std::vector<int> entries =
        quick ? std::vector{1'000, 10'000} : std::vector{1'000, 10'000, 100'000};
    const std::vector<int> mebibytes = quick ? std::vector{1, 64} : std::vector{1, 64, 512, 4'096};
    Scale scale;
    addTable(scale, "nanoseconds an entry", entries, "entries", kMemoryPerEntryMax,
             [&](int n) { return entrySteps(server, image, directory, n); });
    addTable(scale, "nanoseconds a KiB", mebibytes, "MiB", 0,
             [&](int n) { return byteSteps(server, image, directory, n); });
    scale.tables += fmt::format(
        "Aims: a factor of at most {}; at most {} MiB of memory and {} bytes an entry.\n",
        kGrowthMax, kMemoryBytesMax >> 20, kMemoryPerEntryMax);
    return scale;
}

} // namespace tavelin::bench
