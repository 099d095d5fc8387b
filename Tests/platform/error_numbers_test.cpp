#include "platform/error_numbers.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <set>

namespace tavelin {
namespace {

constexpr std::int32_t kFirstUnusedNumber = 107;

std::string hostText(int number) {
    return std::strerror(number); // NOLINT(concurrency-mt-unsafe): the test has one thread
}

TEST(ErrorNumbers, EveryNumberOfMacOSComesBack) {
    // Numbers that share a host number with another, and what they come back as.
    const std::map<std::int32_t, std::int32_t> shared{{kENODATA, kENOATTR},
                                                      {kEOPNOTSUPP, kENOTSUP}};
    for (std::int32_t number = 0; number < kFirstUnusedNumber; ++number) {
        SCOPED_TRACE(number);
        const int host = toHost(number);
        if (host == EIO && number != kEIO) {
            // Only macOS has it, which is no reason to answer another number's text.
            EXPECT_EQ(errorText(number), "Unknown error " + std::to_string(number));
            continue;
        }
        const auto other = shared.find(number);
        EXPECT_EQ(fromHost(host), other != shared.end() ? other->second : number);
        EXPECT_EQ(errorText(number), hostText(host));
    }
}

#ifdef __linux__
TEST(ErrorNumbers, OnlyWhatMacOSLacksIsFoldedIntoEIO) {
    std::set<std::int32_t> seen;
    int folded = 0;
    for (int host = 1; host <= EHWPOISON; ++host) {
        const std::int32_t number = fromHost(host);
        if (number == kEIO && host != EIO) {
            ++folded;
        } else {
            EXPECT_EQ(toHost(number), host);
            EXPECT_TRUE(seen.insert(number).second) << "two host numbers became " << number;
        }
    }
    EXPECT_EQ(folded, 44 + 2); // two numbers are left out by Linux itself
}

TEST(ErrorNumbers, TheOnesThatDifferAreThoseOfMacOS) {
    EXPECT_EQ(fromHost(ENOTEMPTY), 66);
    EXPECT_EQ(fromHost(ENAMETOOLONG), 63);
    EXPECT_EQ(fromHost(ENODATA), 93);
    EXPECT_EQ(fromHost(EOPNOTSUPP), 45);
    EXPECT_EQ(fromHost(ELOOP), 62);
    EXPECT_EQ(fromHost(ENOSYS), 78);
    EXPECT_EQ(fromHost(EAGAIN), 35);
    EXPECT_EQ(fromHost(EDEADLK), 11);
    EXPECT_EQ(fromHost(EOVERFLOW), 84);
}

TEST(ErrorNumbers, NumbersOfNobodyHaveOneAnswer) {
    for (const int number : {-1, -5, 134, 4096, 1 << 30}) {
        EXPECT_EQ(fromHost(number), kEIO);
        EXPECT_EQ(toHost(number), EIO);
    }
    // 107 is an error of Linux, but above the border it is not.
    EXPECT_EQ(errorText(kFirstUnusedNumber), "Unknown error 107");
    EXPECT_EQ(errorText(-1), "Unknown error -1");
    EXPECT_EQ(errorText(0), hostText(0));
}
#endif

} // namespace
} // namespace tavelin
