#include "diagnostics/event_log.hpp"
#include "support/temp_folder.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <atomic>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

namespace tavelin {
namespace {

constexpr int kWriters = 8;
constexpr int kEventsEach = 400;

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

void write(EventLog& log, int writer) {
    for (int n = 0; n < kEventsEach; ++n) {
        log.event("e", {{"writer", writer}, {"n", n}, {"pad", std::string(n % 60, 'x')}});
    }
}

/// Runs all writers, and a reader that takes the tail until they are done.
void writeFromManyThreads(EventLog& log) {
    std::atomic<bool> done = false;
    std::thread reader([&] {
        while (!done) {
            recordsIn(log.tail(5000));
        }
    });
    std::vector<std::thread> writers;
    for (int writer = 0; writer < kWriters; ++writer) {
        writers.emplace_back([&log, writer] { write(log, writer); });
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    done = true;
    reader.join();
}

TEST(EventLogThreads, NoLineIsLostTornOrWrittenTwice) {
    const test::TempFolder folder;
    // Half of what is written fits in one generation: one rotation, so nothing is removed.
    EventLog log(folder / "module.log", 250'000);
    writeFromManyThreads(log);
    EXPECT_TRUE(std::filesystem::exists(folder / "module.log.1"));
    const auto records = recordsIn(log.tail(1'000'000));
    EXPECT_EQ(records.size(), std::size_t{kWriters * kEventsEach});
    EXPECT_EQ(std::set(records.begin(), records.end()).size(), records.size());
}

TEST(EventLogThreads, ManyRotationsLoseOnlyRemovedGenerations) {
    const test::TempFolder folder;
    constexpr std::int64_t kBound = 10'000;
    EventLog log(folder / "module.log", kBound);
    writeFromManyThreads(log);
    EXPECT_LE(log.size(), kBound);
    EXPECT_LE(std::filesystem::file_size(folder / "module.log.1"), std::uint64_t{kBound});
    // What is left of each writer is the end of what it wrote, without a gap.
    std::vector<int> next(kWriters, -1);
    for (const auto& [writer, n] : recordsIn(log.tail(1'000'000))) {
        int& expected = next.at(static_cast<std::size_t>(writer));
        EXPECT_TRUE(expected == -1 || expected == n) << writer << ": " << n;
        expected = n + 1;
    }
    for (const int end : next) {
        EXPECT_TRUE(end == -1 || end == kEventsEach);
    }
}

} // namespace
} // namespace tavelin
