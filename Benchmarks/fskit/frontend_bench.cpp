// The front end's own cost: each request on a warm volume against the same call on the NTFSVolume
// below it. Both sides of a comparison take turns in one loop, so what else the machine does hits
// both. "ratio" is the median over the turns; Google Benchmark's own flags choose what runs and how
// it is printed (--benchmark_filter, --benchmark_format=json), and --quick only sees that it works.
#include "fskit/tavelin_file_system.hpp"
#include "lab/disk_resource.hpp"
#include "support/replaced_services.hpp"
#include "support/run_process.hpp"
#include "support/temp_directory.hpp"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace tavelin {
namespace {

using Resource = test::DiskResourceOf<fskit::FSBlockDeviceResource, std::string>;

constexpr std::size_t kEntries = 1000;
// Few enough for the library to keep all their records at hand, so that both sides do equal work.
constexpr std::size_t kPageEntries = 40;
constexpr std::size_t kTransfer = 4096; // bytes
constexpr int kTurn = 64;               // calls of one side before the other side's turn
constexpr int kPageTurn = 8;            // the same for pages, which are calls by the dozen

/// Takes one page and throws it away.
class DiscardingPage final : public fskit::FSDirectoryEntryPacker {
  public:
    bool packEntry(const fskit::FSFileName& name, fskit::FSItemType, fskit::FSItemID,
                   fskit::FSDirectoryCookie next,
                   const fskit::FSItemAttributes* attributes) override {
        if (entries_ == kPageEntries) {
            return false;
        }
        entries_++;
        benchmark::DoNotOptimize(name.data().data());
        benchmark::DoNotOptimize(attributes);
        benchmark::DoNotOptimize(next);
        return true;
    }

  private:
    std::size_t entries_ = 0;
};

/// A loaded volume with one directory of kEntries files, all of it in the cache.
class WarmVolume {
  public:
    WarmVolume() {
        ::setenv("TAVELIN_GROUP_CONTAINER", directory_.path().c_str(), 1);
        module_ = std::make_unique<TavelinFileSystem>();
        module_->loadResource(std::make_shared<Resource>(emptyVolume()), {}).get();
        root_ = volume().activate({}).get();
        directory = create(root_, "folder", fskit::FSItemType::directory);
        for (std::size_t i = 0; i < kEntries; i++) {
            names.emplace_back("document number " + std::to_string(i) + ".txt");
            files.push_back(create(directory, names.back().data(), fskit::FSItemType::file));
        }
        const std::vector<std::byte> content(16 * kTransfer, std::byte{7});
        ntfs().write(ino(files[0]), 0, content);
        ntfs().sync();
        list(0);
    }

    TavelinVolume& volume() { return *module_->volume; }
    NTFSVolume& ntfs() { return *volume().ntfs; }
    static std::uint64_t ino(const fskit::FSItemRef& item) {
        return static_cast<const NItem&>(*item).ino;
    }

    /// Requests one page and keeps the verifier for the next one.
    void list(fskit::FSDirectoryCookie cookie) {
        DiscardingPage page;
        const fskit::FSItemGetAttributesRequest all{~0ull};
        verifier_ = volume().enumerateDirectory(directory, cookie, verifier_, &all, page).get();
    }

    fskit::FSItemRef directory;
    std::vector<fskit::FSFileName> names;
    std::vector<fskit::FSItemRef> files;

  private:
    [[nodiscard]] std::string emptyVolume() const {
        const auto image = directory_ / "volume.img";
        test::writeFile(image, std::string(64u << 20, '\0'));
        test::runOrThrow({"mkntfs", "--quiet", "--fast", "--force", image.string()});
        return test::readFile(image);
    }
    fskit::FSItemRef create(const fskit::FSItemRef& parent, const std::string& name,
                            fskit::FSItemType type) {
        fskit::FSItemSetAttributesRequest nothing;
        return volume().createItem(fskit::FSFileName(name), type, parent, nothing).get().newItem;
    }

    const test::ReplacedServices services_; // no flush ticks, no lines in the system log
    const test::TempDirectory directory_;
    std::unique_ptr<TavelinFileSystem> module_;
    fskit::FSItemRef root_;
    fskit::FSDirectoryVerifier verifier_ = 0;
};

WarmVolume& warm() {
    static WarmVolume instance;
    return instance;
}

template<typename Call>
double nanosecondsOfTurn(Call& call, int calls) {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < calls; i++) {
        call(static_cast<std::size_t>(i));
    }
    const std::chrono::duration<double, std::nano> elapsed =
        std::chrono::steady_clock::now() - start;
    return elapsed.count() / calls;
}

double median(std::vector<double> values) {
    std::ranges::sort(values);
    return values.empty() ? 0 : values[values.size() / 2];
}

/// `request` and `call` do the same i-th piece of work, through the front end and on the volume.
template<typename Request, typename Call>
void compare(benchmark::State& state, int calls, Request request, Call call) {
    std::vector<double> requests;
    std::vector<double> direct;
    std::vector<double> ratios;
    for (auto _ : state) {
        const bool requestFirst = ratios.size() % 2 == 0;
        double ofRequest = requestFirst ? nanosecondsOfTurn(request, calls) : 0;
        const double ofCall = nanosecondsOfTurn(call, calls);
        if (!requestFirst) {
            ofRequest = nanosecondsOfTurn(request, calls);
        }
        state.SetIterationTime(ofRequest / 1e9);
        requests.push_back(ofRequest);
        direct.push_back(ofCall);
        ratios.push_back(ofRequest / ofCall);
    }
    state.counters["request_ns"] = median(requests);
    state.counters["volume_ns"] = median(direct);
    state.counters["ratio"] = median(ratios);
}

void lookup(benchmark::State& state) {
    WarmVolume& w = warm();
    const std::uint64_t parent = WarmVolume::ino(w.directory);
    compare(
        state, kTurn,
        [&](std::size_t i) {
            const auto found = w.volume().lookupItem(w.names[i], w.directory);
            benchmark::DoNotOptimize(found->foundItem.get());
        },
        [&](std::size_t i) {
            benchmark::DoNotOptimize(w.ntfs().find(w.names[i].data(), parent)->size);
        });
}

void getAttributes(benchmark::State& state) {
    WarmVolume& w = warm();
    compare(
        state, kTurn,
        [&](std::size_t i) {
            benchmark::DoNotOptimize(w.volume().getAttributes({}, w.files[i])->size());
        },
        [&](std::size_t i) {
            benchmark::DoNotOptimize(w.ntfs().attributes(WarmVolume::ino(w.files[i])).size);
        });
}

std::uint64_t offsetOf(std::size_t i) {
    return i % 16 * kTransfer;
}

void read4K(benchmark::State& state) {
    WarmVolume& w = warm();
    const std::uint64_t ino = WarmVolume::ino(w.files[0]);
    std::vector<std::byte> memory(kTransfer);
    fskit::FSMutableFileDataBuffer buffer{std::span(memory)};
    compare(
        state, kTurn,
        [&](std::size_t i) {
            const auto count = w.volume().read(w.files[0], static_cast<std::int64_t>(offsetOf(i)),
                                               kTransfer, buffer);
            benchmark::DoNotOptimize(*count);
        },
        [&](std::size_t i) {
            benchmark::DoNotOptimize(w.ntfs().read(ino, offsetOf(i), memory.data(), kTransfer));
        });
}

void write4K(benchmark::State& state) {
    WarmVolume& w = warm();
    const std::uint64_t ino = WarmVolume::ino(w.files[0]);
    const std::vector<std::byte> content(kTransfer, std::byte{9});
    compare(
        state, kTurn,
        [&](std::size_t i) {
            const auto count = w.volume().write(content, w.files[0],
                                                static_cast<std::int64_t>(offsetOf(i)), nullptr);
            benchmark::DoNotOptimize(*count);
        },
        [&](std::size_t i) {
            benchmark::DoNotOptimize(w.ntfs().write(ino, offsetOf(i), content, false));
        });
}

/// A page that starts at `first`: at 0 the directory is listed, later on the listing is at hand.
void page(benchmark::State& state, fskit::FSDirectoryCookie first) {
    WarmVolume& w = warm();
    const std::uint64_t parent = WarmVolume::ino(w.directory);
    const NTFSListing listing = w.ntfs().list(parent);
    compare(
        state, kPageTurn, [&](std::size_t) { w.list(first); },
        [&](std::size_t) {
            if (first == 0) {
                benchmark::DoNotOptimize(w.ntfs().list(parent).size());
            }
            for (std::size_t i = 0; i < kPageEntries; i++) {
                benchmark::DoNotOptimize(w.ntfs().attributes(listing[first + i].ino).size);
            }
        });
}

BENCHMARK(lookup)->UseManualTime();
BENCHMARK(getAttributes)->UseManualTime();
BENCHMARK(read4K)->UseManualTime();
BENCHMARK(write4K)->UseManualTime();
BENCHMARK_CAPTURE(page, first, 0)->UseManualTime();
BENCHMARK_CAPTURE(page, later, 2 * kPageEntries)->UseManualTime();

} // namespace
} // namespace tavelin

int main(int argc, char** argv) {
    static char quickly[] = "--benchmark_min_time=0.01";
    for (int i = 1; i < argc; i++) {
        if (std::string_view(argv[i]) == "--quick") {
            argv[i] = quickly;
        }
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
