// How many requests FSKit sends for what a user does, in both generations; the guide has the table.
// With TAVELIN_WRITE in the environment it is written there: script/request-table.
#import "extension/double/user_actions.h"

#include "support/own_group.hpp"
#include "support/replaced_services.hpp"
#include "support/sample_volume.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fstream>

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

// `before` is the first generation without what it is told of the use of items.
std::string table(const Counts &before, const Counts &first, const Counts &handlers) {
    std::string text = "| what is done | before, all releases | 15.4 to 26 | 27.0 | share of 15.4 "
                       "to 26 |\n|---|---|---|---|---|\n";
    std::size_t sums[3]{};
    const auto row = [&](const std::string &name, std::size_t a, std::size_t b, std::size_t c) {
        text += "| " + name + " | " + std::to_string(a) + " | " + std::to_string(b) + " | " +
                std::to_string(c) + " | " + std::to_string((c * 100 + b / 2) / b) + " % |\n";
    };
    for (std::size_t i = 0; i < kActions.size(); ++i) {
        row(kActions[i], before[i], first[i], handlers[i]);
        sums[0] += before[i];
        sums[1] += first[i];
        sums[2] += handlers[i];
    }
    row("all of it", sums[0], sums[1], sums[2]);
    EXPECT_LE(sums[2] * 100, std::min(sums[0], sums[1]) * 60);
    return text;
}

TEST(RequestTable, OfTheGuideIsTheOneThatIsCounted) {
    const std::string counted = table(count(Release::k26_0, false), count(Release::k26_0, true),
                                      count(Release::k27_0, true));
    const std::filesystem::path guide(TAVELIN_GUIDE);
    std::string text = readFile(guide);
    const std::size_t start = text.find("| what is done |");
    ASSERT_NE(start, std::string::npos);
    const std::size_t end = text.find("\n\n", start) + 1;
    if (std::getenv("TAVELIN_WRITE") != nullptr) {
        text.replace(start, end - start, counted);
        writeFile(guide, text);
    } else {
        EXPECT_EQ(text.substr(start, end - start), counted) << "run script/request-table";
    }
}

} // namespace

} // namespace tavelin::test
