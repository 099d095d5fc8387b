#include "platform/information_dictionary.hpp"
#include "platform/private/posix_services.hpp"
#include "platform/product.hpp"

#include <gtest/gtest.h>

#include <cmath>

namespace tavelin {
namespace {

TEST(InformationDictionary, NamesTheProductAndItsGroup) {
    const InformationDictionary dictionary = mainInformationDictionary();
    EXPECT_EQ(informationText(dictionary, {"TVLLogGroup"}), product::kGroup);
    EXPECT_EQ(informationText(dictionary, {"EXAppExtensionAttributes", "FSShortName"}),
              product::kShortName);
    // Neither a missing key, nor a dictionary, nor what would lie below text, is text.
    EXPECT_EQ(informationText(dictionary, {"CFBundleName"}), std::nullopt);
    EXPECT_EQ(informationText(dictionary, {"EXAppExtensionAttributes"}), std::nullopt);
    EXPECT_EQ(informationText(dictionary, {"TVLLogGroup", "FSShortName"}), std::nullopt);
}

TEST(GroupContainer, IsTheFirstDirectoryThatTheEnvironmentGives) {
    struct Case {
        const char* container;
        const char* stateHome;
        const char* home;
        std::optional<std::filesystem::path> expected;
        bool isRoot = false;
    };
    const Case cases[] = {
        {"/box", "/state", "/home/me", "/box"},
        {nullptr, "/state", "/home/me", "/state/tavelin/g"},
        {"", "", "/home/me", "/home/me/.local/state/tavelin/g"},
        {nullptr, "state", "/home/me", "/home/me/.local/state/tavelin/g"},
        {nullptr, nullptr, nullptr, std::nullopt},
        {nullptr, "state", "", std::nullopt},
        {"/box", "/state", "/home/me", "/box", true},
        {nullptr, "/state", "/home/me", "/var/lib/tavelin/g", true},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(posix::containerFrom(c.container, c.stateHome, c.home, "g", c.isRoot),
                  c.expected);
    }
}

TEST(OperatingSystemVersion, TakesTheDistributionsNameWithoutItsQuotes) {
    EXPECT_EQ(posix::prettyName("NAME=\"X\"\nPRETTY_NAME=\"X Linux 12 (worm)\"\nID=x\n"),
              "X Linux 12 (worm)");
    EXPECT_EQ(posix::prettyName("ID=x\n"), "");
    EXPECT_NE(posix::operatingSystemVersion(), "");
}

TEST(TimerSchedule, KeepsIntervalsWithinReason) {
    using namespace std::chrono_literals;
    const auto interval = [](double seconds) {
        return TimerSchedule::every(seconds, 0ns).interval;
    };
    EXPECT_EQ(interval(0.25), 250ms);
    EXPECT_EQ(interval(0), 1ms);
    EXPECT_EQ(interval(-3), 1ms);
    EXPECT_EQ(interval(NAN), 1ms);
    EXPECT_EQ(interval(INFINITY), 24h);
}

} // namespace
} // namespace tavelin
