// explore_lab SECONDS SEED WORKERS DIRECTORY: explores with so many processes, going on where an
// earlier run with this seed and directory stopped. Prints its figures, or the shortest script that
// it finds to fail, and exits 1.
// explore_lab --play: what goes wrong with the script on its standard input.
#include "explore/explore.hpp"
#include "support/replaced_services.hpp"
#include "support/run_process.hpp"
#include "support/sample_volume.hpp"

#include <fmt/format.h>

#include <chrono>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

namespace {

using namespace tavelin::test;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr std::uint64_t kWalksBetweenSaves = 1000;

Bytes formattedVolume() {
    return loadImage(SampleVolume({.bytes = 4u << 20}).image());
}

int playInput() {
    const ReplacedServices services; // no flush but those of the script
    const std::string text(std::istreambuf_iterator<char>(std::cin), {});
    const std::string fault = play(fromText(text), formattedVolume());
    fmt::print("{}", fault);
    return fault.empty() ? 0 : 1;
}

// Of the file, in one step.
void save(const Explorer& explorer, const fs::path& file) {
    {
        std::ofstream out;
        out.exceptions(std::ios::failbit | std::ios::badbit);
        out.open(file.string() + ".new");
        explorer.save(out);
    }
    fs::rename(file.string() + ".new", file);
}

// Prints the figures of all runs so far.
int work(double seconds, Explorer::Part part, const fs::path& file) {
    const ReplacedServices services;
    const auto began = Clock::now();
    Explorer explorer(part, formattedVolume());
    if (fs::exists(file)) {
        std::ifstream in(file);
        explorer.load(in);
    }
    const std::size_t known = explorer.states().size();
    while (Clock::now() - began < std::chrono::duration<double>(seconds)) {
        std::ofstream trace(file.string() + ".trace");
        if (const std::string fault = explorer.walk(trace); !fault.empty()) {
            fmt::print(stderr, "{}", fault);
            return 1;
        }
        if (explorer.figures().walks % kWalksBetweenSaves == 0) {
            save(explorer, file);
        }
    }
    save(explorer, file);
    const auto& [walks, operations, comparisons, cuts] = explorer.figures();
    fmt::print("{} {} {} {} {} {}\n", explorer.states().size() - known, explorer.states().size(),
               walks, operations, comparisons, cuts);
    return 0;
}

ProcessResult playApart(const Operations& script) {
    return run({"/proc/self/exe", "--play"}, toText(script));
}

// Why a worker failed, by a script as short as may be.
void explain(const ProcessResult& worker, const fs::path& trace) {
    std::ifstream in(trace);
    const Operations script = fromText({std::istreambuf_iterator<char>(in), {}});
    if (playApart(script).ok()) {
        fmt::print("{}\nwhat it did last does not fail alone: {}\n", worker.describe(),
                   trace.string());
        return;
    }
    fmt::print("{}\nafter {} operations; in short:\n", worker.describe(), script.size());
    const Operations shorter =
        shrink(script, [](const Operations& some) { return !playApart(some).ok(); });
    fmt::print("{}{}\n", toText(shorter), playApart(shorter).describe());
}

int explore(const std::string& seconds, const std::string& seed, std::uint64_t workers,
            const fs::path& directory) {
    fs::create_directories(directory);
    const auto began = Clock::now();
    const auto fileOf = [&](std::uint64_t worker) {
        return directory / fmt::format("seed-{}-{}-of-{}", seed, worker, workers);
    };
    std::vector<std::unique_ptr<RunningProcess>> running;
    for (std::uint64_t i = 0; i < workers; ++i) {
        running.push_back(std::make_unique<RunningProcess>(
            std::vector<std::string>{"/proc/self/exe", "--work", seconds, seed, std::to_string(i),
                                     std::to_string(workers), fileOf(i)}));
    }
    std::array<std::uint64_t, 6> sums{};
    int status = 0;
    for (std::uint64_t i = 0; i < workers; ++i) {
        const ProcessResult result = running[i]->finish();
        std::istringstream figures(result.out);
        for (std::uint64_t& sum : sums) {
            std::uint64_t figure = 0;
            figures >> figure;
            sum += figure;
        }
        if (!result.ok()) {
            explain(result, fileOf(i).string() + ".trace");
            status = 1;
        }
    }
    const double took = std::chrono::duration<double>(Clock::now() - began).count();
    fmt::print("new states         {} in {:.0f} s, {:.0f} an hour, {} processes\n", sums[0], took,
               static_cast<double>(sums[0]) * 3600 / took, workers);
    fmt::print("distinct states    {}, with those of earlier runs; the same of all of them:\n"
               "walks              {}\noperations         {}\nall compared       {}\n"
               "power cuts         {}, each with a structural check\n",
               sums[1], sums[2], sums[3], sums[4], sums[5]);
    return status;
}

} // namespace

int main(int count, char** words) {
    const std::vector<std::string> given(words + 1, words + count);
    if (given == std::vector<std::string>{"--play"}) {
        return playInput();
    }
    if (given.size() == 6 && given[0] == "--work") {
        return work(std::stod(given[1]),
                    {std::stoull(given[2]), std::stoull(given[3]), std::stoull(given[4])},
                    given[5]);
    }
    if (given.size() == 4) {
        return explore(given[0], given[1], std::stoull(given[2]), given[3]);
    }
    fmt::print(stderr, "usage: explore_lab SECONDS SEED WORKERS DIRECTORY | --play\n");
    return 2;
}
