#include "platform/assert.hpp"
#include "platform/checked.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

namespace tavelin {
namespace {

TEST(CheckedDeathTest, AnOverflowStopsTheProcessWithItsReason) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    constexpr auto kValueMax = std::numeric_limits<std::int64_t>::max();
    std::int64_t counter = kValueMax - 1;
    checkedIncrement(counter, "the counter overflowed");
    EXPECT_EQ(counter, kValueMax);
    EXPECT_DEATH(checkedIncrement(counter, "the counter overflowed"), "the counter overflowed");

    EXPECT_EQ(checkedMultiply<std::uint64_t>(4096, 1ULL << 51, "size"), 1ULL << 63);
    EXPECT_DEATH(static_cast<void>(checkedMultiply<std::uint64_t>(4096, 1ULL << 52, "size")),
                 "fatal: size");
}

TEST(CheckedDeathTest, AFalseAssertionStopsTheProcessWhereAssertionsAreOn) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    int evaluated = 0;
    TAVELIN_ASSERT(++evaluated == 1);
    EXPECT_EQ(evaluated, kAssertions ? 1 : 0);
    if (kAssertions) {
        EXPECT_DEATH(TAVELIN_ASSERT(evaluated == 2), "checked_test.cpp:.*not true: evaluated == 2");
    }
}

} // namespace
} // namespace tavelin
