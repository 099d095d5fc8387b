// What requests cost on a Mac, for each file of the workloads that the FUSE host is compared by;
// docs/bench/requests.md has the table. With TAVELIN_WRITE in the environment it is written there:
// script/request-table.
#import "extension/double/user_actions.h"

#include "platform/product.hpp"
#include "support/own_group.hpp"
#include "support/replaced_services.hpp"
#include "support/sample_volume.hpp"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <ctime>
#include <stdexcept>

namespace tavelin::test {

namespace {

// Of a request to an extension that does nearly nothing, seen on macOS 15.5.
constexpr double kMillisecondsOfARequest = 0.121;
// In each workload of the comparison.
constexpr int kFiles = 5000;

struct Workload {
    const char *what;
    const char *category; // of docs/bench/mount.md
    int operations;       // in the category
};
constexpr std::array kWorkloads{
    Workload{"create a file and write 2,000 bytes", "create small files", kFiles},
    Workload{"create an empty file", "create in one folder", kFiles},
    Workload{"stat a file of a folder that was listed", "walk and stat, cold", kFiles},
    Workload{"open, read and close a small file", "read small files, cold", kFiles},
    Workload{"rename a file", "rename", kFiles},
    Workload{"list a folder of 5,000 files", "list one folder, cold", 1},
};

std::vector<std::size_t> count(Release release) {
    const ReplacedServices services;
    const SampleVolume sample;
    std::vector<std::size_t> counts;
    @autoreleasepool {
        Daemon daemon(release);
        daemon.bringUp([ImageResource resourceWithImage:sample.image() writable:YES]);
        UserActions user(daemon, true);
        const auto noted = [&](const auto &action) {
            const std::size_t before = daemon.requests();
            action();
            counts.push_back(daemon.requests() - before);
        };
        FSItem *const root = daemon.root();
        const Answer folder = daemon.create(root, "folder", FSItemTypeDirectory);
        for (int i = 0; i < kFiles; ++i) {
            EXPECT_TRUE(daemon.create(folder.item(), "entry" + std::to_string(i)).ok());
        }
        const Answer file = daemon.create(root, "file");
        EXPECT_TRUE(daemon.write(file.item(), std::string(4096, 'f')).ok());
        noted([&] { user.write(user.create(root, "small").item(), std::string(2000, 's')); });
        noted([&] {
            const Answer empty = user.create(root, "empty");
            user.open(empty.item());
            user.close(empty.item());
        });
        noted([&] { EXPECT_TRUE(user.lookup(folder.item(), "entry7").ok()); });
        noted([&] { user.openAndRead("file"); });
        noted([&] { user.rename(file.item(), root, "file", "renamed"); });
        noted([&] { user.list(folder.item()); });
        static_cast<void>(daemon.abandon());
    }
    return counts;
}

// The figure in the first column of figures of the nth table that has the row.
double figure(const std::string &tables, const std::string &row, int nth) {
    std::size_t at = 0;
    for (int i = 0; i <= nth; ++i) {
        at = tables.find("\n| " + row + " | ", at) + 1;
        if (at == 0) {
            throw std::runtime_error("docs/bench/mount.md has no " + row);
        }
    }
    return std::stod(tables.substr(at + row.size() + 5));
}

TEST(RequestCosts, AreThoseThatAreCounted) {
    const std::vector<std::size_t> first = count(Release::k26_0);
    const std::vector<std::size_t> handlers = count(Release::k27_0);
    const std::filesystem::path folder(TAVELIN_BENCHMARKS);
    const bool writes = std::getenv("TAVELIN_WRITE") != nullptr;
    const std::string before = readFile(folder / "requests.md");
    std::string text = before.substr(0, before.find("Counted on"));
    const std::string fuse = writes ? readFile(folder / "mount.md") : "";
    if (writes) {
        text += fmt::format("Counted on {:%Y-%m-%d}; tavelin {}. The FUSE host's: {}\n\n",
                            fmt::localtime(std::time(nullptr)), product::kVersion,
                            fuse.substr(0, fuse.find('\n')));
        text +=
            "| for one file | requests, 15.4 to 26 | ms at 121 µs | requests, 27.0 | ms at "
            "121 µs | requests, FUSE | ms in all, FUSE |\n|---|---:|---:|---:|---:|---:|---:|\n";
    }
    for (std::size_t i = 0; i < kWorkloads.size(); ++i) {
        const Workload &each = kWorkloads[i];
        const auto wait = [](std::size_t n) { return kMillisecondsOfARequest * double(n); };
        const std::string row =
            fmt::format("| {} | {} | {:.2f} | {} | {:.2f} | ", each.what, first.at(i),
                        wait(first.at(i)), handlers.at(i), wait(handlers.at(i)));
        EXPECT_TRUE(writes || before.find(row) != std::string::npos)
            << row << ": run script/request-table";
        if (writes) {
            text += row + fmt::format("{:.2f} | {:.2f} |\n",
                                      figure(fuse, each.category, 3) / each.operations,
                                      figure(fuse, each.category, 0) / each.operations);
        }
    }
    if (writes) {
        writeFile(folder / "requests.md", text);
    }
}

} // namespace

} // namespace tavelin::test
