#include "Benchmarks/mount/workloads.hpp"

#include "Benchmarks/mount/file_calls.hpp"
#include "Benchmarks/mount/source_tree.hpp"
#include "support/run_process.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <random>
#include <stdexcept>

namespace tavelin::bench {

namespace fs = std::filesystem;

namespace {

constexpr int kMiB = 1 << 20;
constexpr int kPage = 4096;

void expect(bool ok, const char* what) {
    if (!ok)
        throw std::runtime_error(fmt::format("wrong result: {}", what));
}

// One round on one server. Each member function is one category or a group that shares files.
class Round {
  public:
    Round(const Server& server, const fs::path& store, const fs::path& directory,
          const Material& material, const Sizes& sizes, const RequestCounter& requests)
        : server_(server),
          store_(store),
          directory_(directory),
          material_(material),
          sizes_(sizes),
          requests_(requests),
          root_(directory.string()) {}

    std::map<std::string, Measurement> run() {
        coldMount();
        largeFile();
        smallFiles();
        oneDirectory();
        programs();
        mounted_->unmount();
        return std::move(measured_);
    }

  private:
    void coldMount() {
        if (mounted_)
            mounted_->unmount();
        mounted_.reset();
        std::ofstream drop("/proc/sys/vm/drop_caches");
        if (!(drop << "3\n" << std::flush))
            throw std::runtime_error("only root can drop the kernel's caches for a cold start");
        mounted_ = std::make_unique<MountedServer>(server_, store_, directory_);
    }

    template<typename Work>
    void measure(const char* category, Work&& work) {
        Measurement& measured = measured_[category];
        measured.processor = -mounted_->processorTime();
        const uint64_t before = requests_.count();
        measured.seconds = timed(std::forward<Work>(work));
        measured.requests = static_cast<double>(requests_.count() - before);
        measured.processor += mounted_->processorTime();
    }

    void largeFile() {
        const std::string path = root_ + "/large";
        std::string block(kMiB, 'x');
        measure("sequential write", [&] {
            File file(path, O_WRONLY | O_CREAT);
            for (int at = 0; at < sizes_.largeFile; at += kMiB)
                file.write(block, at);
            file.sync();
        });
        coldMount();
        measure("sequential read, cold", [&] {
            File file(path, O_RDONLY);
            off_t at = 0;
            while (size_t got = file.read(block, at))
                at += static_cast<off_t>(got);
            expect(at == sizes_.largeFile, "size of the large file");
        });
        coldMount();
        std::mt19937 random(7);
        std::uniform_int_distribution<int> page(0, sizes_.largeFile / kPage - 1);
        block.resize(kPage);
        measure("random 4 KiB read, cold", [&] {
            File file(path, O_RDONLY);
            for (int i = 0; i < sizes_.randomReads; ++i)
                expect(file.read(block, off_t{page(random)} * kPage) == kPage, "random read");
        });
        measure("random 4 KiB write, fsync", [&] {
            File file(path, O_WRONLY);
            for (int i = 0; i < sizes_.syncedWrites; ++i) {
                file.write(block, off_t{page(random)} * kPage);
                file.sync();
            }
        });
        check(::unlink(path.c_str()) == 0, path);
    }

    std::string smallDirectory(int index) const {
        return fmt::format("{}/folder{:02}", root_, index % sizes_.smallDirectories);
    }

    void smallFiles() {
        const std::string content(static_cast<size_t>(sizes_.smallFile), 's');
        measure("create small files", [&] {
            for (int i = 0; i < sizes_.smallDirectories; ++i)
                check(::mkdir(smallDirectory(i).c_str(), 0777) == 0, smallDirectory(i));
            for (int i = 0; i < sizes_.smallFiles; ++i)
                File(fmt::format("{}/file{:05}", smallDirectory(i), i), O_WRONLY | O_CREAT | O_EXCL)
                    .write(content, 0);
        });
        coldMount();
        measure("walk and stat, cold", [&] {
            int found = 0;
            for (int i = 0; i < sizes_.smallDirectories; ++i)
                for (const std::string& name : namesIn(smallDirectory(i)))
                    found += statusOf(smallDirectory(i) + "/" + name).st_size == sizes_.smallFile;
            expect(found == sizes_.smallFiles, "files found by the walk");
        });
        coldMount();
        std::string block(static_cast<size_t>(sizes_.smallFile), 0);
        measure("read small files, cold", [&] {
            for (int i = 0; i < sizes_.smallFiles; ++i) {
                File file(fmt::format("{}/file{:05}", smallDirectory(i), i), O_RDONLY);
                expect(file.read(block, 0) == block.size(), "size of a small file");
            }
        });
        expect(block == content, "content of a small file");
        measure("rename", [&] {
            for (int i = 0; i < sizes_.smallFiles; ++i) {
                const std::string from = fmt::format("{}/file{:05}", smallDirectory(i), i);
                const std::string to = fmt::format("{}/renamed{:05}", smallDirectory(i), i);
                check(::rename(from.c_str(), to.c_str()) == 0, from);
            }
        });
    }

    void oneDirectory() {
        const std::string directory = root_ + "/one";
        check(::mkdir(directory.c_str(), 0777) == 0, directory);
        const auto path = [&](int i) { return fmt::format("{}/entry{:06}", directory, i); };
        measure("create in one folder", [&] {
            for (int i = 0; i < sizes_.smallFiles; ++i)
                File(path(i), O_WRONLY | O_CREAT | O_EXCL);
        });
        coldMount();
        measure("list one folder, cold", [&] {
            expect(namesIn(directory).size() == static_cast<size_t>(sizes_.smallFiles),
                   "entries of the one folder");
        });
        coldMount();
        std::mt19937 random(11);
        std::uniform_int_distribution<int> any(0, sizes_.smallFiles - 1);
        measure("stat at random, cold", [&] {
            for (int i = 0; i < sizes_.smallFiles; ++i)
                (void)statusOf(path(any(random)));
        });
    }

    void programs() {
        const std::string copy = root_ + "/source";
        measure("copy a source tree in", [&] {
            test::runOrThrow({"cp", "-r", material_.sourceTree, copy});
        });
        measure("remove everything", [&] {
            std::vector<std::string> command{"rm", "-rf"};
            for (const std::string& name : namesIn(root_))
                command.push_back(root_ + "/" + name);
            test::runOrThrow(command);
        });
        const std::string work = root_ + "/work";
        const std::vector<std::string> status{
            "git", "-C", work, "-c", "safe.directory=*", "status", "--porcelain"};
        test::runOrThrow({"cp", "-r", material_.workTree, work});
        // Settles git's index on this file system's inode numbers and times.
        test::runOrThrow(status);
        coldMount();
        measure("git status, cold",
                [&] { expect(test::runOrThrow(status).empty(), "git status"); });
    }

    const Server& server_;
    fs::path store_, directory_;
    const Material& material_;
    const Sizes& sizes_;
    const RequestCounter& requests_;
    std::string root_;
    std::unique_ptr<MountedServer> mounted_;
    std::map<std::string, Measurement> measured_;
};

} // namespace

Sizes quickSizes() {
    Sizes sizes;
    sizes.largeFile = 32 << 20;
    sizes.randomReads = 500;
    sizes.syncedWrites = 100;
    sizes.smallFiles = 600;
    sizes.sourceFiles = 200;
    return sizes;
}

const std::vector<std::string>& categories() {
    static const std::vector<std::string> all{
        "sequential write",        "sequential read, cold",
        "random 4 KiB read, cold", "random 4 KiB write, fsync",
        "create small files",      "walk and stat, cold",
        "read small files, cold",  "rename",
        "create in one folder",    "list one folder, cold",
        "stat at random, cold",    "copy a source tree in",
        "remove everything",       "git status, cold",
    };
    return all;
}

Material makeMaterial(const fs::path& directory, const Sizes& sizes) {
    Material material{directory / "source", directory / "work"};
    makeSourceTree(material.sourceTree, sizes.sourceFiles);
    makeSourceTree(material.workTree, sizes.smallFiles);
    const std::string work = material.workTree;
    // Without settings of the machine it runs on: file modes are not NTFS's to keep.
    test::runOrThrow({"git", "-C", work, "init", "-q"});
    test::runOrThrow({"git", "-C", work, "config", "core.fileMode", "false"});
    test::runOrThrow({"git", "-C", work, "add", "-A"});
    test::runOrThrow({"git", "-C", work, "-c", "user.name=Bench", "-c",
                      "user.email=bench@example.org", "commit", "-q", "-m", "Start"});
    return material;
}

std::map<std::string, Measurement> runRound(const Server& server, const fs::path& store,
                                            const fs::path& directory, const Material& material,
                                            const Sizes& sizes, const RequestCounter& requests) {
    return Round(server, store, directory, material, sizes, requests).run();
}

} // namespace tavelin::bench
