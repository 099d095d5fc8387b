// The services of the extension and what the application asks the system, on a double of macOS.
// The entry has installed the services by the time that main() begins.
#import "extension/app/module_state.h"

#import "extension/double/mac_system.h"

#include "diagnostics/log.hpp"
#include "extension/app/mounted_volumes.hpp"
#include "extension/services/mac_services.hpp"
#include "extension/text.hpp"
#include "platform/os_version.hpp"
#include "platform/product.hpp"

#include <gtest/gtest.h>

#include <string_view>

namespace tavelin::test {

namespace {

class MacServices : public testing::Test {
  protected:
    ~MacServices() override {
        macSystem() = {};
        [pool_ release];
    }

    NSAutoreleasePool *const pool_ = [NSAutoreleasePool new];
};

TEST_F(MacServices, AreInForceFromTheStartOfTheProcess) {
    log().error("lost");
    log().info("noted");
    macSystem().infoIsEnabled = true;
    EXPECT_TRUE(log().isEnabled(LogLevel::kInfo));
    log().info("told");
    ASSERT_EQ(macSystem().log.size(), 2u);
    const auto logged = [](std::size_t at, const char *level, const char *message) {
        const std::string &line = macSystem().log.at(at);
        EXPECT_TRUE(line.starts_with(level) && line.ends_with(message)) << line;
    };
    logged(0, "error ", " lost");
    logged(1, "info ", " told");
    EXPECT_EQ(operatingSystemVersion(),
              toText(NSProcessInfo.processInfo.operatingSystemVersionString));
    const Services own = macServices();
    EXPECT_EQ(own.groupContainer("T.group"), std::filesystem::path("/containers/T.group"));
    EXPECT_EQ(own.groupContainer(""), std::nullopt);
    static_cast<void>(own.informationDictionary()); // of a program without a bundle
}

TEST_F(MacServices, ATimerTicksBetweenStartAndCancel) {
    int ticks = 0;
    const TimerSchedule schedule{std::chrono::seconds(1), std::chrono::milliseconds(100)};
    std::unique_ptr<RepeatingTimer> timer = mac::dispatchTimer(schedule, [&] { ++ticks; });
    EXPECT_TRUE(macSystem().timers.empty()) << "a source that is not activated cannot be let go";
    timer->start();
    timer->start();
    ASSERT_EQ(macSystem().timers.size(), 1u);
    ManualSource *source = macSystem().timers.front().get();
    EXPECT_TRUE(source->_active);
    EXPECT_EQ(source->_interval, 1'000'000'000u);
    EXPECT_EQ(source->_leeway, 100'000'000u);
    source->_handler();
    EXPECT_EQ(ticks, 1);
    timer->cancel();
    EXPECT_TRUE(source->_cancelled);
    source->_handler(); // one that was on its way
    EXPECT_EQ(ticks, 1);
    timer->start();
    EXPECT_EQ(macSystem().timers.size(), 1u);
    timer.reset();
    source->_handler();
    EXPECT_EQ(ticks, 1) << "the handler does not need the timer";
}

TEST_F(MacServices, QueuedWorkRunsOnce) {
    int runs = 0;
    mac::globalUtilityQueue()->async([&] { ++runs; });
    EXPECT_EQ(runs, 0);
    EXPECT_EQ(macSystem().runQueued(), 1u);
    EXPECT_EQ(macSystem().runQueued(), 0u);
    EXPECT_EQ(runs, 1);
}

TEST_F(MacServices, TheApplicationSaysWhetherTheModuleIsOn) {
    const std::string own(product::kExtensionBundleID);
    FSModuleIdentity *const other = moduleIdentity("org.example.other", true);
    const auto fetch = [](NSArray<FSModuleIdentity *> *modules) {
        macSystem().modules = Strong(modules);
        __block std::string sentence;
        __block bool needs = false;
        TVLFetchModuleState(^(NSString *text, BOOL needsSettings) {
            sentence = toText(text);
            needs = needsSettings;
        });
        EXPECT_EQ(sentence, "") << "answered on the main thread";
        EXPECT_EQ(macSystem().runQueued(), 1u);
        return std::pair(sentence, needs);
    };
    const auto expect = [&](NSArray<FSModuleIdentity *> *modules, const char *part, bool needs) {
        const auto [sentence, needsSettings] = fetch(modules);
        EXPECT_NE(sentence.find(part), std::string::npos) << sentence;
        EXPECT_EQ(needsSettings, needs);
    };
    expect(nil, "did not tell", false);
    expect(@[ other ], "does not know", false);
    expect(@[ other, moduleIdentity(own, false) ], "switched off", true);
    expect(@[ other, moduleIdentity(own, true) ], "switched on", false);

    TVLOpenExtensionSettings();
    EXPECT_TRUE(macSystem().opened.empty());
    macSystem().hasSettings = false;
    TVLOpenExtensionSettings();
    ASSERT_EQ(macSystem().opened.size(), 1u);
    EXPECT_TRUE(macSystem().opened[0].starts_with("x-apple.systempreferences:"));
}

TEST_F(MacServices, TheApplicationListsItsOwnVolumes) {
    EXPECT_TRUE(describeMountedVolumes().empty());
    struct statfs volume {};
    const auto put = [](auto &field, std::string_view text) {
        text.copy(field, sizeof field - 1);
        field[text.size()] = 0;
    };
    volume.f_bsize = 4096;
    volume.f_blocks = 1'000'000;
    volume.f_bavail = 250'000;
    put(volume.f_fstypename, "apfs");
    put(volume.f_mntonname, "/Volumes/Photos");
    put(volume.f_mntfromname, "/dev/disk4s1");
    macSystem().mounts.push_back(volume);
    put(volume.f_fstypename, product::kShortName);
    macSystem().mounts.push_back(volume);
    volume.f_flags = MNT_RDONLY;
    macSystem().mounts.push_back(volume);
    EXPECT_EQ(describeMountedVolumes(),
              (std::vector<std::string>{
                  "/Volumes/Photos (/dev/disk4s1): read and write, 1.0 of 4.1 GB free",
                  "/Volumes/Photos (/dev/disk4s1): read-only, 1.0 of 4.1 GB free"}));
}

} // namespace

} // namespace tavelin::test
