// Random reads of 4 KiB in a large file that Windows compressed, through the front end and through
// a mount. Every byte read is compared with the file's. Needs root, as it mounts.
//
//   compressed_file_bench [--tavelin PROGRAM] [--directory DIR] [--mebibytes N] [--reads N]
//                         [--only FORMAT]
//
// The file is 8 MiB of machine code over and over: each chunk is in the compressed stream as often,
// at a place of its own.
#include "Benchmarks/mount/file_calls.hpp"
#include "Benchmarks/mount/mounted_server.hpp"
#include "compression/oracle.hpp"
#include "hosting/module_host.hpp"
#include "platform/file_descriptor.hpp"
#include "support/run_process.hpp"
#include "support/temp_directory.hpp"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <optional>
#include <random>
#include <stdexcept>
#include <sys/xattr.h>
#include <time.h>

namespace {

using namespace tavelin;
using compression::Format;
namespace fs = std::filesystem;

constexpr std::size_t kReadBytes = 4096;
constexpr std::size_t kSampleBytes = std::size_t{8} << 20;
constexpr int kRounds = 3; // of which the best counts: the machine does other things, too

constexpr std::pair<Format, std::string_view> kFormats[] = {{Format::xpress4K, "xpress4k"},
                                                            {Format::xpress8K, "xpress8k"},
                                                            {Format::xpress16K, "xpress16k"},
                                                            {Format::lzx32K, "lzx"}};

struct Arguments {
    std::string tavelin = "build/bench/tavelin";
    std::string directory = "/dev/shm";
    std::uint64_t mebibytes = 1024;
    std::size_t reads = 40'000; // in a round
    std::string only;           // one format; empty for all

    [[nodiscard]] std::uint64_t fileBytes() const { return mebibytes << 20; }
};

test::Bytes sampleBytes() {
    std::ifstream file(SAMPLE_FILE, std::ios::binary);
    test::Bytes bytes(kSampleBytes);
    file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(kSampleBytes));
    if (!file) {
        throw std::runtime_error(SAMPLE_FILE " is shorter than 8 MiB");
    }
    return bytes;
}

/// What the bytes read are compared with.
class Content {
  public:
    explicit Content(const test::Bytes& sample) : sample_(sample) {}

    void expect(std::uint64_t offset, const std::string& bytes) const {
        if (std::memcmp(&sample_[offset % kSampleBytes], bytes.data(), bytes.size()) != 0) {
            throw std::runtime_error(fmt::format("other bytes at {}", offset));
        }
    }

  private:
    const test::Bytes& sample_;
};

/// Writes the compressed stream of a file that is the sample `copies` times.
void writeStream(const fs::path& stream, Format format, const test::Bytes& sample,
                 std::uint64_t copies) {
    test::Oracle oracle(format);
    const std::size_t size = compression::chunkSize(format);
    std::vector<std::uint32_t> ends; // of the sample's chunks
    test::Bytes chunks;
    for (std::size_t at = 0; at < sample.size(); at += size) {
        const auto chunk = std::span(sample).subspan(at, size);
        const test::Bytes packed = oracle.compress(chunk);
        chunks.insert(chunks.end(), packed.empty() ? chunk.begin() : std::span(packed).begin(),
                      packed.empty() ? chunk.end() : std::span(packed).end());
        ends.push_back(static_cast<std::uint32_t>(chunks.size()));
    }
    std::vector<std::uint32_t> table;
    for (std::uint64_t copy = 0; copy < copies; copy++) {
        for (const std::uint32_t end : ends) {
            table.push_back(static_cast<std::uint32_t>(copy * chunks.size()) + end);
        }
    }
    table.pop_back(); // a chunk's entry says where the one before it ends
    std::ofstream file(stream, std::ios::binary);
    file.write(reinterpret_cast<const char*>(table.data()),
               static_cast<std::streamsize>(table.size() * sizeof table[0]));
    for (std::uint64_t copy = 0; copy < copies; copy++) {
        file.write(reinterpret_cast<const char*>(chunks.data()),
                   static_cast<std::streamsize>(chunks.size()));
    }
    if (!file.flush()) {
        throw std::runtime_error(fmt::format("{} could not be written", stream.string()));
    }
}

/// Makes a volume with a file "compressed".
void makeImage(const fs::path& image, const fs::path& mountPoint, Format format,
               const test::Bytes& sample, const Arguments& arguments) {
    fs::remove(image);
    std::ofstream(image).close();
    fs::resize_file(image, arguments.fileBytes() + (std::uint64_t{128} << 20));
    test::runOrThrow({"mkntfs", "-q", "-Q", "-F", image});
    const bench::Server driver{
        "ntfs-3g", bench::Role::driver, [](const fs::path& store, const fs::path& directory) {
            return std::vector<std::string>{"ntfs-3g", store, directory, "-o",
                                            "big_writes,no_detach,streams_interface=windows"};
        }};
    bench::MountedServer mounted(driver, image, mountPoint);
    const fs::path file = mountPoint / "compressed";
    std::ofstream(file).close();
    writeStream(file.string() + ":WofCompressedData", format, sample,
                arguments.fileBytes() / kSampleBytes);
    fs::resize_file(file, arguments.fileBytes());
    const std::uint32_t reparse[] = {0x80000017, 16, 1, 2, 1, static_cast<std::uint32_t>(format)};
    if (::setxattr(file.c_str(), "system.ntfs_reparse_data", reparse, sizeof reparse, 0) != 0) {
        throw std::runtime_error("the reparse point could not be set");
    }
    mounted.unmount();
}

/// Processor time used so far, in seconds.
double processorTime(clockid_t clock) {
    timespec now{};
    ::clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

/// Random reads in a second of processor time, the server's included. `read` fills a buffer from an
/// offset. No place is read twice in a round; `prepare` runs before each round.
template<typename Prepare, typename Read>
double readsPerSecond(std::optional<clockid_t> server, const Arguments& arguments,
                      const Content& content, const Prepare& prepare, const Read& read) {
    std::vector<std::uint64_t> offsets(arguments.fileBytes() / kReadBytes);
    for (std::size_t i = 0; i < offsets.size(); i++) {
        offsets[i] = i * kReadBytes;
    }
    const auto now = [&] {
        return processorTime(CLOCK_THREAD_CPUTIME_ID) + (server ? processorTime(*server) : 0);
    };
    std::mt19937_64 random(1);
    std::string buffer(kReadBytes, '\0');
    double best = 0;
    for (int round = 0; round < kRounds; round++) {
        std::ranges::shuffle(offsets, random);
        const auto wanted = std::span(offsets).first(std::min(offsets.size(), arguments.reads));
        prepare();
        const double start = now();
        for (const std::uint64_t offset : wanted) {
            read(offset, buffer);
            content.expect(offset, buffer);
        }
        best = std::max(best, static_cast<double>(wanted.size()) / (now() - start));
    }
    return best;
}

double throughFrontEnd(const fs::path& image, const Arguments& arguments, const Content& content) {
    const auto host = ModuleHost::openImage(image, {"-r"});
    VolumeClient& volume = host->volume();
    const ItemRef file = volume.lookup(volume.root(), "compressed").get().item;
    return readsPerSecond(
        std::nullopt, arguments, content, [] {},
        [&](std::uint64_t offset, std::string& buffer) {
            const auto bytes = std::as_writable_bytes(std::span(buffer));
            if (volume.read(file, offset, bytes).get() != buffer.size()) {
                throw std::runtime_error("a short read");
            }
        });
}

struct MountFigures {
    double uncached = 0;    // reads a second that the kernel has no pages for
    double cached = 0;      // of pages that the kernel has
    std::uint64_t peak = 0; // memory of the server, bytes
};

MountFigures throughMount(const fs::path& image, const fs::path& mountPoint,
                          const Arguments& arguments, const Content& content) {
    bench::MountedServer mounted(bench::tavelinServer(arguments.tavelin), image, mountPoint);
    const std::string path = mountPoint / "compressed";
    bench::File file(path, O_RDONLY);
    const auto read = [&](std::uint64_t offset, std::string& buffer) {
        if (file.read(buffer, static_cast<off_t>(offset)) != buffer.size()) {
            throw std::runtime_error("a short read");
        }
    };
    MountFigures figures;
    const auto dropPages = [&] {
        const FileDescriptor own(path.c_str(), O_RDONLY);
        if (::posix_fadvise(own.get(), 0, 0, POSIX_FADV_DONTNEED) != 0) {
            throw std::runtime_error("the kernel keeps its pages");
        }
    };
    figures.uncached =
        readsPerSecond(mounted.processorClock(), arguments, content, dropPages, read);
    std::string piece(1 << 20, '\0');
    for (std::uint64_t offset = 0; offset < arguments.fileBytes(); offset += piece.size()) {
        read(offset, piece);
        content.expect(offset, piece);
    }
    figures.cached = readsPerSecond(
        CLOCK_MONOTONIC, arguments, content, [] {}, read);
    figures.peak = mounted.peakMemory();
    return figures;
}

void measure(const Arguments& arguments) {
    const test::TempDirectory directory;
    const fs::path image = directory / "volume.img";
    const fs::path mountPoint = directory / "mount";
    fs::create_directory(mountPoint);
    const test::Bytes sample = sampleBytes();
    const Content content(sample);
    fmt::print("Reads of {} bytes in a second of processor time, at random in a file of {} MiB.\n\n"
               "| format | front end | mount, not in the kernel's cache "
               "| mount, in it | server's peak memory |\n|---|---:|---:|---:|---:|\n",
               kReadBytes, arguments.mebibytes);
    for (const auto& [format, name] : kFormats) {
        if (!arguments.only.empty() && arguments.only != name) {
            continue;
        }
        makeImage(image, mountPoint, format, sample, arguments);
        const double frontEnd = throughFrontEnd(image, arguments, content);
        const MountFigures mount = throughMount(image, mountPoint, arguments, content);
        fmt::print("| {} | {:.0f} | {:.0f} | {:.0f} | {} MiB |\n", name, frontEnd, mount.uncached,
                   mount.cached, mount.peak >> 20);
        std::fflush(stdout);
    }
}

} // namespace

int main(int argc, char** argv) {
    Arguments arguments;
    CLI::App app("Random reads in a large file that Windows compressed");
    app.add_option("--tavelin", arguments.tavelin, "the program that mounts");
    app.add_option("--directory", arguments.directory, "where the image is made");
    app.add_option("--mebibytes", arguments.mebibytes, "of the file, a multiple of 8");
    app.add_option("--reads", arguments.reads, "in a round");
    app.add_option("--only", arguments.only, "one format: xpress4k, xpress8k, xpress16k or lzx");
    CLI11_PARSE(app, argc, argv);
    try {
        ::setenv("TMPDIR", arguments.directory.c_str(), 1);
        measure(arguments);
        return 0;
    } catch (const std::exception& error) {
        fmt::print(stderr, "{}\n", error.what());
        return 1;
    }
}
