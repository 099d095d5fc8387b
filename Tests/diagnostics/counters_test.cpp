#include "diagnostics/error_tally.hpp"
#include "diagnostics/log.hpp"
#include "diagnostics/op_counter.hpp"
#include "support/replaced_services.hpp"

#include <gtest/gtest.h>

namespace tavelin {
namespace {

TEST(OpCounter, DumpsTheMostFrequentFirstAndStartsAnew) {
    OpCounter counter;
    for (const char* op : {"a", "b", "c", "b", "c", "b"}) {
        counter.hit(op);
    }
    EXPECT_EQ(counter.dumpAndReset(), "b=3 c=2 a=1");
    EXPECT_EQ(counter.dumpAndReset(), "");
    counter.hit("b");
    EXPECT_EQ(counter.dumpAndReset(), "b=1");
}

TEST(ErrorTally, CountsAllAndKeepsTheFirstUnusualOnes) {
    ErrorTally tally(3);
    FieldValue::Map counts;
    for (const std::int32_t usual : {2, 17, 66, 93}) {
        for (int i = 0; i < 25; ++i) {
            tally.record(usual, "lookupItem");
        }
        counts.emplace(std::to_string(usual), std::int64_t{25});
    }
    EXPECT_EQ(tally.summary(), (Fields{{"counts", counts}, {"first", FieldValue::List{}}}));

    tally.reset();
    for (const std::int32_t code : {5, 28, 5, 61, -1}) {
        tally.record(code, "write");
    }
    EXPECT_EQ(tally.summary(),
              (Fields{{"counts", Fields{{"5", 2}, {"28", 1}, {"61", 1}, {"-1", 1}}},
                      {"first", FieldValue::List{"write:5", "write:28", "write:5"}}}));
    tally.reset();
    EXPECT_EQ(tally.summary(), (Fields{{"counts", Fields{}}, {"first", FieldValue::List{}}}));
}

TEST(Logger, WritesToTheLogInForceUnderTheCategoryOfTheFileSystem) {
    test::ReplacedServices replaced;
    log().info("mounted");
    log().error("read failed");
    EXPECT_EQ(replaced.log().takeLines(),
              (std::vector<std::string>{"info fs: mounted", "error fs: read failed"}));
    EXPECT_TRUE(log().isEnabled(LogLevel::kInfo));
    replaced.log().setInfoEnabled(false);
    EXPECT_FALSE(log().isEnabled(LogLevel::kInfo));
}

} // namespace
} // namespace tavelin
