// Whatever the file system refuses, the caller of the event log never notices.
#include "diagnostics/event_log.hpp"
#include "support/temp_directory.hpp"

#include <gtest/gtest.h>

#include <csignal>
#include <stdexcept>
#include <sys/resource.h>

namespace tavelin {
namespace {

using test::readFile;
using test::writeFile;

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
