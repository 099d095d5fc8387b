// How long the structural check takes, and how much memory, against the number of files.
//
//   check_bench DIRECTORY SVG COUNT...
//
// DIRECTORY should be in memory (/dev/shm): it takes about 1.5 KiB a file. Each volume is filled
// through the bridge and checked in processes of their own, whose peak memory the kernel tells.
#include "check/check.hpp"
#include "core/file_block_device.hpp"
#include "core/ntfs_volume.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace tavelin;
using Clock = std::chrono::steady_clock;

constexpr std::uint64_t kFilesInDirectory = 2000;

struct Row {
    std::uint64_t files = 0;
    double seconds = 0;
    double mebibytes = 0;
};

/// The work in a process of its own; its peak memory in bytes. Ends this one when it fails.
template<typename Work>
std::uint64_t inChild(Work&& work) {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        work();
        _exit(0);
    }
    int status = 0;
    rusage usage{};
    if (wait4(child, &status, 0, &usage) != child || status != 0) {
        fmt::print(stderr, "a child failed with status {}\n", status);
        std::exit(1);
    }
    return static_cast<std::uint64_t>(usage.ru_maxrss) * 1024;
}

void fill(const std::string& image, std::uint64_t files) {
    const std::uint64_t size = (64 + files / 600) << 20; // records and names
    std::fclose(std::fopen(image.c_str(), "w"));
    std::filesystem::resize_file(image, size);
    const std::string format = "mkntfs -q -Q -F " + image + " >/dev/null 2>&1";
    if (std::system(format.c_str()) != 0) { // NOLINT(concurrency-mt-unsafe)
        _exit(1);
    }
    const auto volume = NTFSVolume::open(std::make_shared<FileBlockDevice>(image), false);
    std::uint64_t directory = 0;
    for (std::uint64_t i = 0; i < files; ++i) {
        if (i % kFilesInDirectory == 0) {
            directory = volume->create(fmt::format("directory {}", i), NTFSVolume::kRootIno,
                                       NTFSItemType::directory);
        }
        static_cast<void>(
            volume->create(fmt::format("photo {:07}.jpg", i), directory, NTFSItemType::file));
    }
    volume->unmount();
}

Row measured(const std::filesystem::path& directory, std::uint64_t files) {
    const std::string image = directory / fmt::format("check-{}.img", files);
    static_cast<void>(inChild([&] { fill(image, files); }));
    const auto start = Clock::now();
    const std::uint64_t peak = inChild([&] {
        FileBlockDevice device(image, FileBlockDevice::kDefaultBlockSize, true);
        const check::Report report = check::checkVolume(device);
        if (!report.isClean() || report.files < files) {
            fmt::print(stderr, "{} findings, {} files {}\n", report.total(), report.files,
                       report.unreadable);
            _exit(1);
        }
    });
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::filesystem::remove(image);
    return {files, seconds, static_cast<double>(peak) / (1 << 20)};
}

/// Both axes are logarithmic.
std::string chart(const std::vector<Row>& rows) {
    const auto x = [&](std::uint64_t files) {
        const double first = std::log10(static_cast<double>(rows.front().files));
        const double last = std::log10(static_cast<double>(rows.back().files));
        return 70 + 480 * (std::log10(static_cast<double>(files)) - first) /
                        std::max(last - first, 1e-9);
    };
    const auto y = [](double value) { return 250 - 70 * (std::log10(std::max(value, 0.01)) + 1); };
    std::string svg =
        "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"620\" height=\"340\" "
        "font-family=\"sans-serif\" font-size=\"12\">\n"
        "<rect width=\"620\" height=\"340\" fill=\"white\"/>\n"
        "<text x=\"70\" y=\"24\" font-size=\"14\">The check: seconds (blue) and MiB (red) against "
        "files</text>\n";
    for (const double value : {0.1, 1.0, 10.0, 100.0}) {
        svg += fmt::format("<path d=\"M70 {0}H550\" stroke=\"#ddd\"/><text x=\"62\" y=\"{1}\" "
                           "text-anchor=\"end\">{2}</text>\n",
                           y(value), y(value) + 4, value);
    }
    std::string seconds;
    std::string memory;
    for (const Row& row : rows) {
        seconds += fmt::format("{:.0f},{:.0f} ", x(row.files), y(row.seconds));
        memory += fmt::format("{:.0f},{:.0f} ", x(row.files), y(row.mebibytes));
        svg += fmt::format("<text x=\"{:.0f}\" y=\"300\" text-anchor=\"middle\">{}</text>\n",
                           x(row.files), row.files);
    }
    for (const auto& [points, colour] : {std::pair(seconds, "#1f77b4"), {memory, "#d62728"}}) {
        svg += fmt::format("<polyline points=\"{}\" fill=\"none\" stroke=\"{}\" "
                           "stroke-width=\"2\"/>\n",
                           points, colour);
    }
    return svg + "</svg>\n";
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        fmt::print(stderr, "usage: check_bench DIRECTORY SVG COUNT...\n");
        return 2;
    }
    std::vector<Row> rows;
    for (int i = 3; i < argc; ++i) {
        rows.push_back(measured(argv[1], std::strtoull(argv[i], nullptr, 10)));
        fmt::print("| {} | {:.2f} s | {:.0f} MiB |\n", rows.back().files, rows.back().seconds,
                   rows.back().mebibytes);
        std::fflush(stdout);
    }
    std::FILE* const file = std::fopen(argv[2], "w");
    if (file == nullptr || std::fputs(chart(rows).c_str(), file) < 0) {
        return 1;
    }
    return std::fclose(file);
}
