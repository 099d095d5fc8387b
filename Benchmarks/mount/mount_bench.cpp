// Measures a mounted Tavelin against the NTFS drivers of the system, and against a server that
// only passes through to memory, which is the floor that FUSE itself sets.
//
// Every server serves the same image in memory, freshly formatted for each round; rounds are
// interleaved and the median of a category over the rounds counts. All of it is done twice: with
// the processors idling as they like, and with a request to keep them awake, for every server.
#include "Benchmarks/mount/clients.hpp"
#include "Benchmarks/mount/conditions.hpp"
#include "Benchmarks/mount/file_calls.hpp"
#include "Benchmarks/mount/mounted_server.hpp"
#include "Benchmarks/mount/report.hpp"
#include "Benchmarks/mount/scale.hpp"
#include "Benchmarks/mount/workloads.hpp"
#include "support/run_process.hpp"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <stdexcept>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace tavelin::bench;

namespace {

struct Arguments {
    std::string tavelin = "build/bench/tavelin";
    std::string passThrough; // empty: the floor is left out
    std::string before;      // empty: there is nothing earlier to compare with
    std::string memory = "/dev/shm";
    std::string table, chart; // files to write, besides standard output
    std::vector<std::string> only;
    int rounds = 5;
    int entries = 0; // 0: the whole ladder of sizes
    bool quick = false, scale = false, threads = false;
};

// The directory in memory that holds the image and the mount point, gone at the end.
class Workplace {
  public:
    explicit Workplace(const std::string& memory) {
        std::string name = memory + "/tavelin-bench.XXXXXX";
        if (::mkdtemp(name.data()) == nullptr)
            throw std::runtime_error(fmt::format("{}: {}", name, std::strerror(errno)));
        root_ = name;
        fs::create_directories(mountPoint());
        fs::create_directories(material());
    }
    ~Workplace() {
        std::error_code ignored; // the directory is in memory; nothing is lost but its room
        fs::remove_all(root_, ignored);
    }
    Workplace(const Workplace&) = delete;
    Workplace& operator=(const Workplace&) = delete;

    fs::path image() const { return root_ / "image"; }
    fs::path floor() const { return root_ / "floor"; }
    fs::path mountPoint() const { return root_ / "mount"; }
    fs::path material() const { return root_ / "material"; }

    // The image's memory is taken at once where `isTouched`, else on first use, which is slower, in
    // virtual machines many times.
    void allocateImage(uint64_t bytes, bool isTouched) const {
        const std::string block(1 << 20, '\0');
        File file(image().string(), O_WRONLY | O_CREAT);
        for (uint64_t at = 0; isTouched && at < bytes; at += block.size())
            file.write(block, static_cast<off_t>(at));
        fs::resize_file(image(), bytes);
    }
    // A fresh store for a server: the formatted image, or for the floor an empty directory.
    fs::path store(const Server& server) const {
        if (server.role == Role::floor) {
            fs::remove_all(floor());
            fs::create_directories(floor());
            return floor();
        }
        tavelin::test::runOrThrow({"mkntfs", "-q", "-Q", "-F", image()});
        return image();
    }

  private:
    fs::path root_;
};

std::vector<Server> serversOf(const Arguments& arguments) {
    std::vector<Server> servers{tavelinServer(arguments.tavelin), driverServer("ntfs-3g"),
                                driverServer("lowntfs-3g")};
    if (!arguments.passThrough.empty())
        servers.push_back(floorServer(arguments.passThrough));
    if (!arguments.before.empty())
        servers.push_back(earlierServer(arguments.before));
    if (!arguments.only.empty())
        std::erase_if(servers, [&](const Server& server) {
            return std::find(arguments.only.begin(), arguments.only.end(), server.name) ==
                   arguments.only.end();
        });
    return servers;
}

void writeTo(const std::string& file, const std::string& text) {
    if (file.empty())
        return;
    std::ofstream out(file);
    out << text;
    if (!out.flush())
        throw std::runtime_error(fmt::format("cannot write {}", file));
}

// All rounds of all servers, whose costs `run(server)` measures. Whoever ran first runs last in the
// next round, so that none is always next to the same neighbour.
template<typename Run>
Samples measure(const Arguments& arguments, Run&& run) {
    Samples samples;
    std::vector<Server> servers = serversOf(arguments);
    // Round 0 takes the memory that each server puts its files in, and is not counted.
    for (int round = 0; round <= arguments.rounds; ++round) {
        for (const Server& server : servers) {
            fmt::print(stderr, "round {} of {}: {}\n", round, arguments.rounds, server.name);
            for (const auto& [category, measured] : run(server))
                if (round > 0)
                    samples[server.name][category].push_back(measured);
        }
        std::rotate(servers.begin(), servers.begin() + 1, servers.end());
    }
    return samples;
}

// Measures with `run`, twice unless it is to be quick, and tells the result.
template<typename Run>
int compare(const Arguments& arguments, const RequestCounter& requests, Comparison comparison,
            Run&& run) {
    comparison.conditions = describeConditions(arguments.tavelin);
    comparison.rounds = arguments.rounds;
    comparison.countsRequests = requests.isAvailable();
    comparison.idle = measure(arguments, run);
    if (!arguments.quick) {
        const ProcessorsAwake awake;
        comparison.awake = measure(arguments, run);
    }
    const std::vector<Server> servers = serversOf(arguments);
    const std::string report = markdownReport(servers, comparison);
    fmt::print("{}", report);
    writeTo(arguments.table, report);
    writeTo(arguments.chart, svgChart(servers, comparison));
    return 0;
}

int compareWorkloads(const Arguments& arguments) {
    const Sizes sizes = arguments.quick ? quickSizes() : Sizes{};
    const Workplace place(arguments.memory);
    place.allocateImage(sizes.image, false);
    const Material material = makeMaterial(place.material(), sizes);
    const RequestCounter requests;
    return compare(arguments, requests, {.categories = categories(), .unit = "milliseconds"},
                   [&](const Server& server) {
                       return runRound(server, place.store(server), place.mountPoint(), material,
                                       sizes, requests);
                   });
}

int compareClients(const Arguments& arguments) {
    const Workplace place(arguments.memory);
    place.allocateImage(Sizes{}.image, false);
    const RequestCounter requests;
    return compare(arguments, requests,
                   {.categories = clientCategories(), .unit = "milliseconds a thousand operations"},
                   [&](const Server& server) {
                       return measureClients(server, place.store(server), place.mountPoint(),
                                             requests, arguments.quick ? 1 : 3);
                   });
}

constexpr const char* kScaleMethod = "One run, the image in memory, freshly formatted for each "
                                     "column. Entries are empty files of one\n"
                                     "directory, made, looked up and listed in a fresh mount each, "
                                     "then removed. A file is written in\n"
                                     "pieces of 1 MiB and synced, then read in a fresh mount.\n";

int scale(const Arguments& arguments) {
    const Workplace place(arguments.memory);
    place.allocateImage((arguments.quick ? 512ull : 5'120ull) << 20, true);
    const Server server = serversOf(arguments).at(0);
    const Scale scale =
        arguments.entries != 0
            ? measureEntries(server, place.image(), place.mountPoint(), arguments.entries)
            : measureScale(server, place.image(), place.mountPoint(), arguments.quick);
    const std::string report = fmt::format("{}\n{}\n{}", describeConditions(arguments.tavelin),
                                           kScaleMethod, scale.tables);
    fmt::print("{}", report);
    writeTo(arguments.table, report);
    return scale.asAimed ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    Arguments arguments;
    CLI::App app("Compares a mounted Tavelin with the system's NTFS drivers");
    app.add_option("--tavelin", arguments.tavelin, "the program to measure");
    app.add_option("--pass-through", arguments.passThrough, "the pass-through server's program");
    app.add_option("--before", arguments.before, "an earlier build of the program");
    app.add_option("--memory", arguments.memory, "a folder on a file system in memory");
    app.add_option("--rounds", arguments.rounds, "rounds to take the median of");
    app.add_option("--table", arguments.table, "also write the Markdown table here");
    app.add_option("--chart", arguments.chart, "write the bar chart here, as SVG");
    app.add_option("--only", arguments.only, "measure only these servers");
    app.add_flag("--quick", arguments.quick, "small sizes, to see that it works");
    app.add_flag("--threads", arguments.threads, "with 1, 2 and 4 programs at once");
    app.add_flag("--scale", arguments.scale, "growth with the size of folders and files");
    app.add_option("--entries", arguments.entries,
                   "of growth, one folder with so many entries only")
        ->check(CLI::PositiveNumber)
        ->needs("--scale");
    CLI11_PARSE(app, argc, argv);
    try {
        if (arguments.scale)
            return scale(arguments);
        return arguments.threads ? compareClients(arguments) : compareWorkloads(arguments);
    } catch (const std::exception& failure) {
        fmt::print(stderr, "mount_bench: {}\n", failure.what());
        return 1;
    }
}
