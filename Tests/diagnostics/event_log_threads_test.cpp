#include "diagnostics/event_log.hpp"
#include "support/on_threads.hpp"
#include "support/temp_directory.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <sstream>
#include <thread>
#include <vector>

namespace tavelin {
namespace {

constexpr int kWriters = 8;
constexpr int kEventsEach = 600;

/// The (writer, number) pairs of whole records in a text of lines, in the order of the lines.
std::vector<std::pair<int, int>> recordsIn(const std::string& text) {
    std::vector<std::pair<int, int>> records;
    EXPECT_TRUE(text.empty() || text.back() == '\n');
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const auto record = nlohmann::json::parse(line, nullptr, false);
        EXPECT_TRUE(record.is_object()) << line;
        if (record.is_object()) {
            records.emplace_back(record.value("writer", -1), record.value("n", -1));
        }
    }
    return records;
}

/// Runs all writers, and a reader that takes the tail until they are done.
void writeFromManyThreads(EventLog& log) {
    std::atomic<bool> done = false;
    std::thread reader([&] {
        while (!done) {
            recordsIn(log.tail(5000));
        }
    });
    test::onThreads(kWriters, [&log](int writer) {
        for (int n = 0; n < kEventsEach; ++n) {
            log.event("e", {{"writer", writer}, {"n", n}, {"pad", std::string(n % 60, 'x')}});
        }
    });
    done = true;
    reader.join();
}

TEST(EventLogThreads, LinesStayWholeAndOnlyRemovedGenerationsAreLost) {
    // All of it is more than half a megabyte: with the first bound it takes one rotation, which
    // removes nothing; with the second it takes dozens.
    for (const std::int64_t bound : {400'000, 10'000}) {
        const test::TempDirectory directory;
        EventLog log(directory / "module.log", bound);
        writeFromManyThreads(log);
        EXPECT_LE(log.size(), bound);
        EXPECT_LE(std::filesystem::file_size(directory / "module.log.1"), std::uintmax_t(bound));

        // What is left of each writer is the end of what it wrote, each event once, without a gap.
        const auto records = recordsIn(log.tail(1'000'000));
        std::vector<int> next(kWriters, -1);
        for (const auto& [writer, n] : records) {
            int& expected = next.at(static_cast<std::size_t>(writer));
            EXPECT_TRUE(expected == -1 || expected == n) << writer << ": " << n;
            expected = n + 1;
        }
        EXPECT_TRUE(
            std::ranges::all_of(next, [](int end) { return end == -1 || end == kEventsEach; }));
        EXPECT_EQ(records.size() == std::size_t{kWriters * kEventsEach}, bound == 400'000);
    }
}

} // namespace
} // namespace tavelin
