#include "diagnostics/event_log.hpp"
#include "support/temp_directory.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <ostream>
#include <unistd.h>

namespace tavelin {
namespace {

using test::readFile;
using test::writeFile;

constexpr Date at(std::int64_t seconds) {
    return Date(std::chrono::seconds(seconds));
}

const std::string kPid = "\"pid\":" + std::to_string(::getpid());
const std::string kTime = "\"t\":\"2026-11-15T18:20:33Z\"";

struct Describable {
    friend std::ostream& operator<<(std::ostream& out, const Describable&) {
        return out << "described";
    }
};

class EventLogTest : public testing::Test {
  protected:
    const test::TempDirectory directory;
    const std::filesystem::path file = directory / "Library" / "Logs" / "module.log";
    const std::filesystem::path older = file.string() + ".1";
    EventLog log{file, EventLog::kDefaultMaxBytes,
                 [] { return at(1794766833) + std::chrono::milliseconds(999); }};
};

TEST_F(EventLogTest, ARecordIsOneLineOfCleanedFieldsWithSortedKeys) {
    log.event("load", {
                          {"ev", "mine"},
                          {"pid", "mine"},
                          {"ok", true},
                          {"ms", 7},
                          {"big", ~0ULL},
                          {"least", std::numeric_limits<std::int64_t>::min()},
                          {"ratio", 0.5F},
                          {"zz", Describable{}},
                          {"when", at(-1)},
                          {"nested", Fields{{"b", FieldValue::List{at(0), "x/y", 1U}},
                                            {"a", std::vector<std::string>{"\"\n"}}}},
                      });
    EXPECT_EQ(
        readFile(file),
        "{\"big\":18446744073709551615,\"ev\":\"load\",\"least\":-9223372036854775808,"
        "\"ms\":7,\"nested\":{\"a\":[\"\\\"\\n\"],\"b\":[\"1970-01-01T00:00:00Z\",\"x/y\",1]},"
        "\"ok\":true," +
            kPid + ",\"ratio\":0.5," + kTime +
            ",\"when\":\"1969-12-31T23:59:59Z\",\"zz\":\"described\"}\n");
}

TEST_F(EventLogTest, OddBytesAreReplacedAndOddNumbersDropTheRecord) {
    log.event("probe", {{"bsd", "di\xffsk"}, {"k\x80", FieldValue::List{"\xc3"}}});
    const std::string written =
        "{\"bsd\":\"di\ufffdsk\",\"ev\":\"probe\",\"k\ufffd\":[\"\ufffd\"]," + kPid + "," + kTime +
        "}\n";
    EXPECT_EQ(readFile(file), written);
    log.event("probe", {{"deep", FieldValue::List{Fields{{"ratio", std::nan("")}}}}});
    log.event("probe", {{"ratio", std::numeric_limits<float>::infinity()}});
    EXPECT_EQ(readFile(file), written);
}

TEST_F(EventLogTest, TheLineThatWouldCrossTheBoundStartsAFreshFile) {
    const std::string line = "{\"ev\":\"e\"," + kPid + "," + kTime + "}\n";
    const auto bound = EventLog::kDefaultMaxBytes;
    const auto fill = [&](std::int64_t room) {
        const auto size = static_cast<std::size_t>(bound - room);
        writeFile(file, std::string(size - 1, 'x') + '\n');
        return readFile(file);
    };
    const auto length = static_cast<std::int64_t>(line.size());
    writeFile(older, "oldest\n");

    const std::string exact = fill(length);
    log.event("e");
    EXPECT_EQ(log.size(), bound);
    EXPECT_EQ(readFile(file), exact + line);
    EXPECT_EQ(readFile(older), "oldest\n");

    const std::string full = fill(length - 1);
    log.event("e");
    EXPECT_EQ(readFile(file), line);
    EXPECT_EQ(readFile(older), full);
}

TEST_F(EventLogTest, TailGivesTheLastWholeLinesOfBothGenerations) {
    struct Case {
        std::int64_t limit;
        std::string expected;
    };
    writeFile(older, "one\ntwo\n");
    writeFile(file, "three\nfo\xffur\n"); // 6 + 6 bytes
    const std::string whole = "three\nfo\ufffdur\n";
    const Case cases[] = {
        {100, "one\ntwo\n" + whole},
        {20, "one\ntwo\n" + whole},  // both generations, to the byte
        {19, "two\n" + whole},       // "one" lost its first byte
        {13, whole},                 // what is kept of the older file is its line feed
        {12, "three\nfo\ufffdur\n"}, // enough in the current file, which is not cut
        {11, "fo\ufffdur\n"},
        {6, ""},
        {5, ""},
        {0, ""},
        {-1, ""},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(log.tail(c.limit), c.expected) << c.limit;
    }
    writeFile(file, "a line without its end");
    EXPECT_EQ(log.tail(3), "end");
}

TEST_F(EventLogTest, ReadingFollowsTheFileAndBeginsAgainAfterARotation) {
    const auto expectChunk = [&](std::uint64_t offset, const std::string& text,
                                 std::uint64_t next) {
        const EventLog::Chunk chunk = log.read(offset);
        EXPECT_EQ(chunk.text, text);
        EXPECT_EQ(chunk.offset, next);
    };
    expectChunk(12, "", 0);
    writeFile(file, "one\ntwo\n");
    expectChunk(0, "one\ntwo\n", 8);
    expectChunk(4, "two\n", 8);
    expectChunk(8, "", 8);
    writeFile(file, "n\xffw\n");
    expectChunk(8, "n\ufffdw\n", 4);
}

TEST_F(EventLogTest, TheProcessesLogIsInTheGroupsContainer) {
    ::setenv("TAVELIN_GROUP_CONTAINER", (directory / "box").c_str(), 1); // NOLINT: one thread
    EXPECT_EQ(EventLog::groupFile("any", "a.log"),
              directory / "box" / "Library" / "Logs" / "a.log");
    events().event("module_start");
    EXPECT_NE(readFile(directory / "box" / "Library" / "Logs" / "module.log"), "");
}

} // namespace
} // namespace tavelin
