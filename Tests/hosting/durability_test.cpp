// What the module host adds to the volume's own care for its data: success means the medium, and a
// lost device is reported to the last.

#include "own_group.hpp"

#include "diagnostics/event_log.hpp"
#include "hosting/module_host.hpp"
#include "platform/error_numbers.hpp"
#include "support/faulty_resource.hpp"
#include "support/replaced_services.hpp"
#include "support/sample_volume.hpp"

#include <gtest/gtest.h>

#include <algorithm>

namespace tavelin::test {

namespace {

using Call = FaultyResource::Call;
using Type = fskit::FSItemType;

const std::vector<std::byte> kContent(100'000, std::byte{'c'});

std::size_t occurrences(const std::string& text, const std::string& what) {
    std::size_t count = 0;
    for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; ++at) {
        ++count;
    }
    return count;
}

// The medium is pulled out while there is work to write back.
TEST(LostDevice, IsReportedByEveryRequestAndTheDiagnostics) {
    const ReplacedServices noTimer; // only the requests themselves reach the device
    const SampleVolume sample;
    const auto image = std::make_shared<ImageResource>(sample.image());
    ModuleHost host(image);
    host.open();
    const auto logStart = events().read(0).offset;
    {
        const ItemRef file = host.volume().create(host.volume().root(), "f", Type::file).get().item;
        image->revoke();
        (void)host.volume().write(file, 0, kContent);
        for (int i = 0; i < 30; ++i) {
            const auto answer = host.volume().synchronize();
            ASSERT_FALSE(answer);
            EXPECT_TRUE(answer.error().code() == kENXIO || answer.error().code() == kEIO);
        }
    }
    EXPECT_FALSE(host.close());
    EXPECT_FALSE(host.isLoaded());
    const std::string log = events().read(logStart).text;
    EXPECT_EQ(occurrences(log, "\"ev\":\"device_error\""), 20u);
    EXPECT_EQ(occurrences(log, "\"ev\":\"unload\""), 1u);
    EXPECT_EQ(occurrences(log, "\"ok\":false"), 1u);
}

// Success is only answered once the image itself has been flushed, after all that the next mount
// would need to complete the flush.
TEST(Durability, IsAskedOfTheMediumAndItsFailureAnswered) {
    const ReplacedServices noTimer;
    const SampleVolume sample;
    std::vector<Call> calls;
    bool fails = false;
    ModuleHost host(std::make_shared<FaultyResource>(
        std::make_shared<ImageResource>(sample.image()), [&](const auto& transfer) {
            calls.push_back(transfer.call);
            const bool failing = fails && transfer.call == Call::flushToMedium;
            return failing ? FaultyResource::Fault{.error = fskit::fs_errorForPOSIXError(kEIO)}
                           : FaultyResource::Fault{};
        }));
    const auto flushes = [&] {
        return std::count(calls.begin(), calls.end(), Call::flushToMedium);
    };
    host.open();
    {
        const ItemRef file = host.volume().create(host.volume().root(), "f", Type::file).get().item;
        const auto write = [&] { (void)host.volume().write(file, 0, kContent).get(); };
        write();
        calls.clear();
        EXPECT_TRUE(host.volume().synchronize(fskit::FSSyncFlags::noWait));
        EXPECT_EQ(flushes(), 0);
        EXPECT_TRUE(host.volume().synchronize());
        // The content, which the journal does not have, before the journal says that it is there.
        EXPECT_EQ(flushes(), 2);
        EXPECT_EQ(calls.front(), Call::flushToMedium);
        (void)host.volume().write(file, 0, std::span(kContent).first(100)).get();
        calls.clear();
        EXPECT_TRUE(host.volume().synchronize());
        EXPECT_EQ(flushes(), 1);
        EXPECT_EQ(calls.at(1), Call::flushToMedium);
        fails = true;
        write();
        EXPECT_FALSE(host.volume().synchronize());
        fails = false;
        write();
    }
    calls.clear();
    EXPECT_TRUE(host.close());
    EXPECT_EQ(calls.back(), Call::flushToMedium);

    host.open();
    fails = true;
    EXPECT_FALSE(host.close());
    EXPECT_FALSE(host.isLoaded());
}

} // namespace

} // namespace tavelin::test
