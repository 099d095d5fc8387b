// What the module host adds to the volume's own care for its data: success means the medium.

#include "hosting/module_host.hpp"
#include "lab/host_disk.hpp"
#include "platform/error_numbers.hpp"
#include "support/own_group.hpp"
#include "support/replaced_services.hpp"
#include "support/sample_volume.hpp"

#include <gtest/gtest.h>

#include <algorithm>

namespace tavelin::test {

namespace {

using Type = fskit::FSItemType;

const std::vector<std::byte> kContent(100'000, std::byte{'c'});

// Success is only answered once the image itself has been flushed, after all that the next mount
// would need to complete the flush.
TEST(Durability, IsAskedOfTheMediumAndItsFailureAnswered) {
    const ReplacedServices noTimer;
    const SampleVolume sample;
    std::vector<DiskCall> calls;
    bool fails = false;
    const auto disk = std::make_shared<HostDisk>(loadImage(sample.image()));
    disk->hook = [&](DiskCall call, auto, std::size_t length) {
        calls.push_back(call);
        return fails && call == DiskCall::flush ? throw fskit::fs_errorForPOSIXError(kEIO) : length;
    };
    ModuleHost host(disk);
    const auto flushes = [&] { return std::count(calls.begin(), calls.end(), DiskCall::flush); };
    host.open();
    {
        const ItemRef file = host.volume().create(host.volume().root(), "f", Type::file).get().item;
        const auto write = [&] { (void)host.volume().write(file, 0, kContent).get(); };
        write();
        calls.clear();
        EXPECT_TRUE(host.volume().synchronize(fskit::FSSyncFlags::noWait));
        EXPECT_EQ(flushes(), 0);
        EXPECT_TRUE(host.volume().synchronize());
        // The content, which the journal does not have, before the journal says that it is there;
        // and the volume's dirty flag before anything else that the journal has goes home.
        EXPECT_EQ(flushes(), 3);
        EXPECT_EQ(calls.front(), DiskCall::flush);
        (void)host.volume().write(file, 0, std::span(kContent).first(100)).get();
        calls.clear();
        EXPECT_TRUE(host.volume().synchronize());
        EXPECT_EQ(flushes(), 1);
        EXPECT_EQ(calls.at(2), DiskCall::flush); // after the content and the record
        fails = true;
        write();
        EXPECT_FALSE(host.volume().synchronize());
        fails = false;
        write();
    }
    calls.clear();
    EXPECT_TRUE(host.close());
    EXPECT_EQ(calls.back(), DiskCall::flush);

    host.open();
    fails = true;
    EXPECT_FALSE(host.close());
    EXPECT_FALSE(host.isLoaded());
}

} // namespace

} // namespace tavelin::test
