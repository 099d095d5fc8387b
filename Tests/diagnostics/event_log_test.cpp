#include "diagnostics/event_log.hpp"
#include "support/temp_directory.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <csignal>
#include <limits>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <sys/resource.h>
#include <unistd.h>
#include <utility>
#include <vector>

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

TEST_F(EventLogTest, WhatWaitsIsWrittenWithAFailureInItsOrder) {
    const auto after = [&](const std::vector<std::pair<std::string, Fields>>& logged) {
        std::filesystem::remove(file);
        EventLog waiting(file);
        waiting.holdUntilFailure("check", {"load", "unload"});
        for (const auto& [name, fields] : logged) {
            waiting.event(name, fields);
        }
        std::string names;
        std::istringstream lines(waiting.tail(1000));
        for (std::string line; std::getline(lines, line);) {
            names += nlohmann::json::parse(line).at("ev").get<std::string>() + " ";
        }
        return names;
    };
    const Fields good{{"ok", true}};
    const Fields bad{{"ok", false}};
    EXPECT_EQ(after({{"probe", {}}, {"activate", {}}}), "");
    EXPECT_EQ(after({{"probe", {}}, {"load", good}, {"activate", {}}, {"unload", good}}),
              "load unload ");
    EXPECT_EQ(after({{"probe", {}}, {"load", good}, {"activate", {}}, {"unload", bad}}),
              "load activate unload ");
    EXPECT_EQ(after({{"probe", {}}, {"load", bad}, {"probe", {}}}), "probe load probe ");
    EXPECT_EQ(after({{"load", good}, {"probe", {}}, {"check", {{"errno", 0}}}, {"probe", {}}}),
              "load probe check probe ");
}

TEST_F(EventLogTest, TheProcessesLogIsInTheGroupsContainer) {
    ::setenv("TAVELIN_GROUP_CONTAINER", (directory / "box").c_str(), 1); // NOLINT: one thread
    EXPECT_EQ(EventLog::groupFile("any", "a.log"),
              directory / "box" / "Library" / "Logs" / "a.log");
    events().event("module_start");
    EXPECT_NE(readFile(directory / "box" / "Library" / "Logs" / "module.log"), "");
}

// Whatever the file system refuses, the caller of the event log never notices.

/// Lets no file of this process grow beyond `bytes`: a full disk, to the byte.
class FileSizeLimit {
  public:
    explicit FileSizeLimit(rlim_t bytes) {
        ::getrlimit(RLIMIT_FSIZE, &before_);
        handler_ = std::signal(SIGXFSZ, SIG_IGN);
        const rlimit limited{bytes, before_.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &limited);
    }
    ~FileSizeLimit() {
        ::setrlimit(RLIMIT_FSIZE, &before_);
        std::signal(SIGXFSZ, handler_);
    }

  private:
    rlimit before_{};
    void (*handler_)(int) = nullptr;
};

void expectInert(EventLog& log) {
    log.event("probe", {{"result", "usable"}});
    EXPECT_EQ(log.tail(1000), "");
    EXPECT_EQ(log.read(10).text, "");
    EXPECT_EQ(log.read(10).offset, 0U);
}

class EventLogFailureTest : public testing::Test {
  protected:
    const test::TempDirectory directory;
    const std::filesystem::path file = directory / "module.log";
};

TEST_F(EventLogFailureTest, WithoutAFileOrADirectoryOrATimeItIsInert) {
    EventLog absent(std::nullopt);
    expectInert(absent);
    EXPECT_EQ(absent.size(), 0);

    EventLog timeless(file, 1000, []() -> Date { throw std::runtime_error("no time"); });
    expectInert(timeless);
    EXPECT_TRUE(std::filesystem::is_empty(directory.path()));

    writeFile(file, "");
    EventLog unmakeable(file / "Logs" / "module.log");
    expectInert(unmakeable);

    EventLog blocked(directory / "folder");
    std::filesystem::create_directory(directory / "folder");
    expectInert(blocked);

    writeFile(directory / "of somebody else", "kept");
    std::filesystem::create_symlink("of somebody else", directory / "planted");
    EventLog planted(directory / "planted");
    expectInert(planted);
    EXPECT_EQ(readFile(directory / "of somebody else"), "kept");
}

TEST_F(EventLogFailureTest, AFileThatVanishesIsMadeAgainADirectoryIsNot) {
    EventLog log(directory / "Logs" / "module.log");
    log.event("one");
    std::filesystem::remove(directory / "Logs" / "module.log");
    log.event("two");
    EXPECT_NE(log.tail(1000).find("\"two\""), std::string::npos);
    std::filesystem::remove_all(directory / "Logs");
    expectInert(log);
}

TEST_F(EventLogFailureTest, ARotationThatFailsKeepsWritingToTheSameFile) {
    std::filesystem::create_directories(directory / "module.log.1" / "obstacle");
    EventLog log(file, 10);
    log.event("one");
    log.event("two");
    const std::string text = readFile(file);
    EXPECT_NE(text.find("\"one\""), std::string::npos);
    EXPECT_NE(text.find("\"two\""), std::string::npos);
}

TEST_F(EventLogFailureTest, AFullDiskNeverLeavesHalfALine) {
    EventLog log(file);
    log.event("first");
    const std::string first = readFile(file);
    for (const std::size_t room : {std::size_t{0}, std::size_t{1}, first.size() - 1}) {
        const FileSizeLimit limit(first.size() + room);
        log.event("later");
        EXPECT_EQ(readFile(file), first) << room;
    }
    log.event("later");
    EXPECT_EQ(readFile(file).size(), 2 * first.size());
}

} // namespace
} // namespace tavelin
