// How many requests FSKit sends for what a user does, in both generations; the guide has the table,
// and docs/bench/requests.md what they cost for each file of the workloads that the FUSE host is
// compared by. With TAVELIN_WRITE in the environment the rows are printed, for
// script/request-table.
#import "extension/double/user_actions.h"

#include "support/own_group.hpp"
#include "support/replaced_services.hpp"
#include "support/sample_volume.hpp"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <numeric>

namespace tavelin::test {

namespace {

constexpr std::array kActions{"open and read a small file", "save a document over the old one",
                              "`ls -l` of 1,000 files", "copy of 10 folders with 20 files each"};
using Counts = std::array<std::size_t, kActions.size()>;

Counts count(Release release, bool tellsUse) {
    const ReplacedServices services;
    const SampleVolume sample;
    Counts counts{};
    @autoreleasepool {
        Daemon daemon(release);
        daemon.bringUp([ImageResource resourceWithImage:sample.image() writable:YES]);
        UserActions user(daemon, tellsUse);
        const Answer document = daemon.create(daemon.root(), "document");
        EXPECT_TRUE(daemon.write(document.item(), std::string(4096, 'd')).ok());
        const Answer large = daemon.create(daemon.root(), "large", FSItemTypeDirectory);
        for (int i = 0; i < 1000; ++i) {
            EXPECT_TRUE(daemon.create(large.item(), "file" + std::to_string(i)).ok());
        }
        std::size_t before = daemon.requests();
        const auto noted = [&](std::size_t action) {
            counts[action] = daemon.requests() - before;
            before = daemon.requests();
        };
        user.openAndRead("document");
        noted(0);
        user.save("document");
        noted(1);
        user.list(large.item());
        noted(2);
        user.copyTree(10, 20);
        noted(3);
        static_cast<void>(daemon.abandon());
    }
    return counts;
}

void expectRow(const std::string &text, const std::string &row) {
    if (std::getenv("TAVELIN_WRITE") != nullptr) {
        std::puts(row.c_str());
    } else {
        EXPECT_NE(text.find('\n' + row), std::string::npos) << row << ": run script/request-table";
    }
}

TEST(RequestTable, OfTheGuideIsTheOneThatIsCounted) {
    // The first generation without what it is told of the use of items.
    const Counts before = count(Release::k26_0, false);
    const Counts first = count(Release::k26_0, true);
    const Counts handlers = count(Release::k27_0, true);
    const std::string guide = readFile(TAVELIN_GUIDE);
    const auto row = [&](const char *name, std::size_t a, std::size_t b, std::size_t c) {
        expectRow(guide, fmt::format("| {} | {} | {} | {} | {} % |", name, a, b, c,
                                     (c * 100 + b / 2) / b));
    };
    for (std::size_t i = 0; i < kActions.size(); ++i) {
        row(kActions.at(i), before.at(i), first.at(i), handlers.at(i));
    }
    const auto sum = [](const Counts &counts) {
        return std::accumulate(counts.begin(), counts.end(), std::size_t{0});
    };
    row("all of it", sum(before), sum(first), sum(handlers));
    EXPECT_LE(sum(handlers) * 100, std::min(sum(before), sum(first)) * 60);
}

// Of a request to an extension that did nearly nothing, seen on macOS 15.5.
constexpr double kMillisecondsOfARequest = 0.121;
constexpr std::array kWorkloads{"create a file and write 2,000 bytes",
                                "create an empty file",
                                "stat a file of a folder that was listed",
                                "open, read and close a small file",
                                "rename a file",
                                "list a folder of 5,000 files"};

std::vector<std::size_t> countWorkloads(Release release) {
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
        for (int i = 0; i < 5'000; ++i) {
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

TEST(RequestTable, OfTheBenchmarksIsTheOneThatIsCounted) {
    const auto first = countWorkloads(Release::k26_0);
    const auto handlers = countWorkloads(Release::k27_0);
    const std::string text = readFile(TAVELIN_REQUESTS);
    for (std::size_t i = 0; i < kWorkloads.size(); ++i) {
        const auto wait = [](std::size_t n) {
            return kMillisecondsOfARequest * static_cast<double>(n);
        };
        expectRow(text,
                  fmt::format("| {} | {} | {:.2f} | {} | {:.2f} |", kWorkloads.at(i), first.at(i),
                              wait(first.at(i)), handlers.at(i), wait(handlers.at(i))));
    }
}

} // namespace

} // namespace tavelin::test
