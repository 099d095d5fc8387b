// Times the same work through the bridge and through libntfs-3g itself, on one image in memory.
//
// Rounds are interleaved, each on a freshly formatted volume, and the medians count. A ratio is
// the library's time over the bridge's: 1 is even, more is faster than the library. What is timed
// is the processor's time for this process: with the image in memory nothing waits, and whatever
// else the machine does leaves the figures alone.
#include "Benchmarks/bridge/engine.hpp"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <stdexcept>
#include <unistd.h>

using namespace tavelin::bench;

namespace {

struct Sizes {
    uint64_t image = 1ull << 30; // bytes
    uint64_t stream = 512ull << 20;
    int files = 10000;
    int randomAccesses = 20000;
    int rounds = 5;
};

constexpr Sizes kQuick = {160ull << 20, 64ull << 20, 1000, 2000, 3};
constexpr size_t kStreamPiece = 1 << 20;
constexpr size_t kRandomPiece = 4096;

const char* const kCategories[] = {
    "create, write, close",
    "open, write, close",
    "lookup and attributes",
    "the same again",
    "listing",
    "1 MiB writes",
    "1 MiB reads",
    "4 KiB random reads",
    "4 KiB random writes",
};

// Seconds of every round, by category.
using Samples = std::map<std::string, std::vector<double>>;

// An image file that has all its blocks, removed at the end.
class Image {
  public:
    Image(const std::string& directory, uint64_t bytes)
        : path_(directory + "/bridge-bench.XXXXXX") {
        const int file = mkstemp(path_.data());
        const int error = file < 0 ? errno : posix_fallocate(file, 0, static_cast<off_t>(bytes));
        if (error != 0) {
            throw std::runtime_error(fmt::format("{}: {}", path_, std::strerror(error)));
        }
        close(file);
    }
    ~Image() { unlink(path_.c_str()); }
    Image(const Image&) = delete;
    Image& operator=(const Image&) = delete;

    const std::string& path() const { return path_; }
    void format() const {
        const std::string command =
            fmt::format("PATH=$PATH:/usr/sbin mkntfs -QFq '{}' >/dev/null 2>&1", path_);
        if (std::system(command.c_str()) != 0) { // NOLINT(concurrency-mt-unsafe): one thread
            throw std::runtime_error("mkntfs failed");
        }
    }

  private:
    std::string path_;
};

double processorSeconds() {
    timespec now = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

class Round {
  public:
    Round(const Image& image, const Sizes& sizes, Samples& samples,
          std::function<std::unique_ptr<Engine>(const std::string&)> mount)
        : image_(image), sizes_(sizes), samples_(samples), mount_(std::move(mount)) {
        for (int i = 0; i < sizes.files; ++i) {
            names_.push_back(fmt::format("file number {}", i));
        }
        std::shuffle(names_.begin(), names_.end(), random_);
    }

    void run() {
        image_.format();
        changeFiles(*mount_(image_.path()));
        readNames(*mount_(image_.path()));
        moveData(*mount_(image_.path()));
    }

  private:
    void time(const char* category, const std::function<void()>& work) {
        const double start = processorSeconds();
        work();
        samples_[category].push_back(processorSeconds() - start);
    }

    void changeFiles(Engine& engine) {
        const std::string first(2000, 'a');
        const std::string second(2000, 'b');
        engine.makeDirectory("files");
        time(kCategories[0], [&] {
            for (const std::string& name : names_) {
                engine.createAndWrite(name, first);
            }
            engine.sync();
        });
        time(kCategories[1], [&] {
            for (const std::string& name : names_) {
                engine.openAndWrite(name, second);
            }
            engine.sync();
        });
    }

    void readNames(Engine& engine) {
        engine.openDirectory("files");
        for (const char* const category : {kCategories[2], kCategories[3]}) {
            time(category, [&] {
                for (const std::string& name : names_) {
                    if (engine.lookUpSize(name) != 2000) {
                        throw std::runtime_error("a file has the wrong size");
                    }
                }
            });
        }
        time(kCategories[4], [&] {
            if (engine.countEntries() != names_.size()) {
                throw std::runtime_error("a listing is not complete");
            }
        });
    }

    void moveData(Engine& engine) {
        std::vector<char> piece(kStreamPiece, 'x');
        engine.openFile("large", true);
        time(kCategories[5], [&] {
            for (uint64_t at = 0; at < sizes_.stream; at += piece.size()) {
                engine.write(at, piece);
            }
            engine.sync();
        });
        time(kCategories[6], [&] {
            for (uint64_t at = 0; at < sizes_.stream; at += piece.size()) {
                engine.read(at, piece);
            }
        });
        piece.resize(kRandomPiece);
        const uint64_t places = sizes_.stream / kRandomPiece;
        time(kCategories[7], [&] {
            for (int i = 0; i < sizes_.randomAccesses; ++i) {
                engine.read(random_() % places * kRandomPiece, piece);
            }
        });
        time(kCategories[8], [&] {
            for (int i = 0; i < sizes_.randomAccesses; ++i) {
                engine.write(random_() % places * kRandomPiece, piece);
            }
            engine.sync();
        });
        engine.closeFile();
    }

    const Image& image_;
    const Sizes& sizes_;
    Samples& samples_;
    std::function<std::unique_ptr<Engine>(const std::string&)> mount_;
    std::mt19937_64 random_{42}; // the same work for both
    std::vector<std::string> names_;
};

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void report(const Samples& bridge, const Samples& library, const std::string& json) {
    fmt::print("{:<24}{:>12}{:>12}{:>8}\n", "milliseconds", "bridge", "library", "ratio");
    std::string rows;
    for (const char* const category : kCategories) {
        const double ours = median(bridge.at(category)) * 1e3;
        const double theirs = median(library.at(category)) * 1e3;
        fmt::print("{:<24}{:>12.1f}{:>12.1f}{:>8.2f}\n", category, ours, theirs, theirs / ours);
        rows +=
            fmt::format("{}\n  {{\"work\": \"{}\", \"bridge_ms\": {:.3f}, \"library_ms\": {:.3f}, "
                        "\"ratio\": {:.3f}}}",
                        rows.empty() ? "" : ",", category, ours, theirs, theirs / ours);
    }
    if (!json.empty()) {
        std::ofstream(json) << "[" << rows << "\n]\n";
    }
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app("Compares the bridge with libntfs-3g on its own file device.");
    bool isQuick = false;
    std::string json;
    std::string directory = "/dev/shm";
    app.add_flag("--quick", isQuick, "small sizes, to see that it works");
    app.add_option("--json", json, "also write the figures to this file");
    app.add_option("--folder", directory, "where the image goes; memory by default");
    CLI11_PARSE(app, argc, argv);
    try {
        const Sizes sizes = isQuick ? kQuick : Sizes{};
        const Image image(directory, sizes.image);
        Samples bridge;
        Samples library;
        for (int round = 0; round < sizes.rounds; ++round) {
            // Which comes first alternates, so that neither always finds the machine warm.
            for (const bool isBridge : {round % 2 == 0, round % 2 != 0}) {
                if (isBridge) {
                    Round(image, sizes, bridge, mountBridge).run();
                } else {
                    Round(image, sizes, library, mountLibrary).run();
                }
            }
        }
        report(bridge, library, json);
    } catch (const std::exception& error) {
        fmt::print(stderr, "bridge_bench: {}\n", error.what());
        return 1;
    }
    return 0;
}
