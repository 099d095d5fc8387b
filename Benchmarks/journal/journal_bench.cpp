// What the journal costs: the same work on a volume with and without one, over one image in memory.
//
// Rounds are interleaved, each on a freshly formatted volume, and the medians count. What is timed
// is the processor's time for this process; what goes to the device is counted. Without a journal a
// sync writes to each place at once, and a power cut may damage the volume.
#include "core/file_block_device.hpp"
#include "core/journal/journaled_device.hpp"
#include "core/ntfs_volume.hpp"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <map>
#include <random>
#include <stdexcept>
#include <unistd.h>

using namespace tavelin;

namespace {

struct Sizes {
    std::uint64_t image = 512ull << 20; // bytes
    std::uint64_t file = 128ull << 20;
    int files = 5000;
    int writes = 20000;
    int rounds = 7;
};

constexpr Sizes kQuick = {96ull << 20, 32ull << 20, 500, 1000, 3};

struct Cost {
    double seconds = 0;
    std::uint64_t writes = 0;
    std::uint64_t bytes = 0;
    std::uint64_t syncs = 0;
};

// Counts what reaches a file, and asks no disk to keep it.
class CountingDevice final : public BlockDevice {
  public:
    explicit CountingDevice(const std::string& image) : inner_(image) {}

    std::uint64_t size() const noexcept override { return inner_.size(); }
    std::uint32_t blockSize() const noexcept override { return inner_.blockSize(); }
    std::int32_t read(std::byte* to, std::uint64_t offset, std::uint64_t length) noexcept override {
        return inner_.read(to, offset, length);
    }
    std::int32_t write(const std::byte* from, std::uint64_t offset,
                       std::uint64_t length) noexcept override {
        count(length);
        return inner_.write(from, offset, length);
    }
    std::int32_t writeGathered(GatheredBytes parts, std::uint64_t offset) noexcept override {
        std::uint64_t length = 0;
        for (const auto& part : parts) {
            length += part.size();
        }
        count(length);
        return inner_.writeGathered(parts, offset);
    }
    std::int32_t sync() noexcept override {
        ++counted.syncs;
        return 0;
    }

    Cost counted;

  private:
    void count(std::uint64_t length) noexcept {
        ++counted.writes;
        counted.bytes += length;
    }

    FileBlockDevice inner_;
};

double processorSeconds() {
    timespec now = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

void check(std::int32_t error) {
    if (error != 0) {
        throw std::runtime_error(fmt::format("the journal answered errno {}", error));
    }
}

// By work: what each round cost.
using Samples = std::map<std::string, std::vector<Cost>>;

class Round {
  public:
    Round(const std::string& image, const Sizes& sizes, bool hasJournal, Samples& samples)
        : sizes_(sizes),
          samples_(samples),
          device_(std::make_shared<CountingDevice>(image)),
          journal_(std::make_shared<JournaledDevice>(device_)) {
        check(journal_->replay(false));
        volume_ = NTFSVolume::open(journal_, false);
        volume_->sync();
        if (hasJournal) {
            check(journal_->begin());
        }
    }

    void run() {
        const std::vector<std::byte> small(8192, std::byte{'s'});
        const auto directory = volume_->create("d", NTFSVolume::kRootIno, NTFSItemType::directory);
        time("create small files", [&] {
            for (int i = 0; i < sizes_.files; ++i) {
                const auto ino = volume_->create(name(i), directory, NTFSItemType::file);
                volume_->write(ino, 0, small);
            }
            volume_->sync();
        });
        time("rename", [&] {
            for (int i = 0; i < sizes_.files; ++i) {
                volume_->rename(name(i), directory, name(i) + " renamed", directory);
            }
            volume_->sync();
        });
        const auto file = volume_->create("large", NTFSVolume::kRootIno, NTFSItemType::file);
        const std::vector<std::byte> piece(1u << 20, std::byte{'p'});
        for (std::uint64_t at = 0; at < sizes_.file; at += piece.size()) {
            volume_->write(file, at, piece);
        }
        volume_->sync();
        const auto writeSomewhere = [&] {
            const std::uint64_t place = random_() % (sizes_.file / 4096) * 4096;
            volume_->write(file, place, std::span(piece).first(4096));
        };
        time("random 4 KiB writes", [&] {
            for (int i = 0; i < sizes_.writes; ++i) {
                writeSomewhere();
            }
            volume_->sync();
        });
        time("the same, each synced", [&] {
            for (int i = 0; i < sizes_.writes / 10; ++i) {
                writeSomewhere();
                volume_->sync();
            }
        });
        volume_->unmount();
        check(journal_->close());
    }

  private:
    static std::string name(int number) { return fmt::format("file number {}", number); }

    void time(const char* work, const std::function<void()>& body) {
        device_->counted = {};
        const double start = processorSeconds();
        body();
        device_->counted.seconds = processorSeconds() - start;
        samples_[work].push_back(device_->counted);
    }

    const Sizes& sizes_;
    Samples& samples_;
    std::shared_ptr<CountingDevice> device_;
    std::shared_ptr<JournaledDevice> journal_;
    std::shared_ptr<NTFSVolume> volume_;
    std::mt19937_64 random_{42}; // the same work for both
};

Cost median(std::vector<Cost> costs) {
    const auto middle = costs.begin() + static_cast<std::ptrdiff_t>(costs.size() / 2);
    std::ranges::nth_element(costs, middle, {}, &Cost::seconds);
    return *middle;
}

void report(const Samples& with, const Samples& without) {
    fmt::print("{:<24}{:>22}{:>8}{:>20}{:>20}{:>16}\n", "with / without journal", "milliseconds",
               "ratio", "device writes", "MiB written", "syncs");
    for (const auto& [work, costs] : with) {
        const Cost a = median(costs);
        const Cost b = median(without.at(work));
        constexpr double mebibyte = 1 << 20;
        fmt::print("{:<24}{:>12.1f}{:>10.1f}{:>8.2f}{:>10}{:>10}{:>10.1f}{:>10.1f}{:>8}{:>8}\n",
                   work, a.seconds * 1e3, b.seconds * 1e3, a.seconds / b.seconds, a.writes,
                   b.writes, static_cast<double>(a.bytes) / mebibyte,
                   static_cast<double>(b.bytes) / mebibyte, a.syncs, b.syncs);
    }
}

void format(const std::filesystem::path& image, std::uint64_t bytes) {
    std::filesystem::remove(image);
    const std::string command =
        fmt::format("truncate -s {} '{}' && PATH=$PATH:/usr/sbin mkntfs -QFq '{}' >/dev/null 2>&1",
                    bytes, image.string(), image.string());
    if (std::system(command.c_str()) != 0) { // NOLINT(concurrency-mt-unsafe): one thread
        throw std::runtime_error("mkntfs failed");
    }
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app("Measures what the journal costs.");
    bool isQuick = false;
    std::string directory = "/dev/shm";
    app.add_flag("--quick", isQuick, "small sizes, to see that it works");
    app.add_option("--folder", directory, "where the image goes; memory by default");
    CLI11_PARSE(app, argc, argv);
    const std::filesystem::path image =
        std::filesystem::path(directory) / fmt::format("journal-bench.{}", getpid());
    try {
        const Sizes sizes = isQuick ? kQuick : Sizes{};
        Samples with;
        Samples without;
        for (int round = 0; round < sizes.rounds; ++round) {
            for (const bool hasJournal : {round % 2 == 0, round % 2 != 0}) {
                format(image, sizes.image);
                Round(image.string(), sizes, hasJournal, hasJournal ? with : without).run();
            }
        }
        std::filesystem::remove(image);
        report(with, without);
    } catch (const std::exception& error) {
        std::filesystem::remove(image);
        fmt::print(stderr, "journal_bench: {}\n", error.what());
        return 1;
    }
    return 0;
}
