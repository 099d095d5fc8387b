#include "core/ntfs_volume.hpp"
#include "lab/sample_disk.hpp"
#include "support/replaced_services.hpp"

#include <gtest/gtest.h>

namespace tavelin {
namespace {

using namespace std::string_literals;
using namespace test;

constexpr std::uint64_t kRoot = NTFSVolume::kRootIno;
using Type = NTFSItemType;

class Volume : public ::testing::Test {
  protected:
    std::shared_ptr<NTFSVolume> mount(bool readOnly = false) {
        device = diskOf(sample);
        return NTFSVolume::open(device, readOnly);
    }

    const SampleVolume sample;
    std::shared_ptr<SampleDisk> device;
    std::shared_ptr<NTFSVolume> volume = mount();
};

TEST_F(Volume, IsProbedLabelledAndMeasured) {
    EXPECT_EQ(NTFSVolume::probe(device), volume->serial());
    EXPECT_EQ(volume->label(), "Sample");
    volume->setLabel("Übung");
    EXPECT_EQ(volume->label(), "Übung");
    EXPECT_EQ(volume->statfs().totalBytes(), device->size() - 4096); // the last holds the backup
    EXPECT_GT(volume->ioStats().dirtyPages, 0u);

    const auto blank = std::make_shared<Disk>(Bytes(1 << 20));
    EXPECT_EQ(NTFSVolume::probe(blank), std::nullopt);
    EXPECT_EQ(codeOf([&] { static_cast<void>(NTFSVolume::open(blank, false)); }), kEINVAL);
    EXPECT_EQ(blank.use_count(), 1) << "a refused mount must hold nothing";
}

TEST_F(Volume, ErrorsHaveTheSameNumbersOnEveryHost) {
    const auto dir = volume->create("dir", kRoot, Type::directory);
    volume->create("child", dir, Type::file);
    const auto creating = [&](const std::string& name) {
        return codeOf([&] { volume->create(name, kRoot, Type::file); });
    };
    EXPECT_EQ(codeOf([&] { volume->remove("dir", kRoot); }), kENOTEMPTY);
    EXPECT_EQ(creating(std::string(256, 'n')), kENAMETOOLONG);
    EXPECT_EQ(codeOf([&] { static_cast<void>(volume->resolve("dir/none")); }), kENOENT);

    const std::string cut = "cut\0name"s;
    EXPECT_EQ(creating(cut), kEINVAL);
    EXPECT_EQ(codeOf([&] { volume->rename("dir", kRoot, cut, kRoot); }), kEINVAL);
    EXPECT_EQ(codeOf([&] { volume->setLabel(cut); }), kEINVAL);
    EXPECT_EQ(volume->list(kRoot).size(), 1u);

    EXPECT_EQ(creating("aux"), 0);
    volume->setWindowsNames(true);
    EXPECT_TRUE(volume->windowsNames());
    EXPECT_EQ(creating("con"), kEINVAL);
}

TEST_F(Volume, AnswersNothingAnyMoreOnceUnmounted) {
    volume->unmount();
    volume->unmount();
    EXPECT_FALSE(volume->isMounted());
    NTFSVolume& v = *volume;
    const std::vector<std::function<void()>> operations{
        [&] { static_cast<void>(v.label()); },
        [&] { v.sync(); },
        [&] { static_cast<void>(v.lookup("x\0y"s, kRoot)); },
        [&] { static_cast<void>(v.resolve("x")); },
        [&] { static_cast<void>(v.read(kRoot, 0, 1)); },
        [&] { v.write(kRoot, 0, bytesOf("x")); },
        [&] { v.setXattr("x", kRoot, {}, NTFSVolume::XattrPolicy::always); },
    };
    for (std::size_t i = 0; i < operations.size(); ++i) {
        EXPECT_EQ(codeOf(operations[i]), kENXIO) << "operation " << i;
    }
    EXPECT_EQ(v.write(kRoot, 0, {}).count, 0u);
    EXPECT_EQ(v.resolve("//"), kRoot);
    EXPECT_DEATH(v.setWindowsNames(true), "after unmount");
}

TEST_F(Volume, DroppedWithoutUnmountItLeavesACompleteImage) {
    const std::string content(3 << 20, 'c');
    const auto dir = volume->create("dir", kRoot, Type::directory);
    volume->write(volume->create("file", dir, Type::file), 0, bytesOf(content));
    volume.reset();
    expectConsistent(sample);
    EXPECT_EQ(sample.cat("/dir/file"), content);
    EXPECT_EQ(mount()->list(kRoot).size(), 1u);
}

TEST_F(Volume, TheTimerWritesBackAsLongAsThereIsAVolume) {
    Services replacement = *services();
    ManualTimers timers;
    std::function<void()> tick; // stays callable after its timer is cancelled
    replacement.makeTimer = [&](TimerSchedule schedule, std::function<void()> made) {
        tick = made;
        return timers.make(schedule, std::move(made));
    };
    const auto before = services();
    installServices(replacement);
    volume->startAutoFlush(5);
    volume->startAutoFlush();
    installServices(*before);
    const auto live = timers.live();
    ASSERT_EQ(live.size(), 1u);
    EXPECT_EQ(live[0].interval, std::chrono::seconds(1));
    EXPECT_EQ(live[0].leeway, std::chrono::milliseconds(100));

    const auto file = volume->create("file", kRoot, Type::file);
    device->failFrom(1, ENOSPC, {DiskCall::write, DiskCall::flush});
    tick();
    EXPECT_EQ(codeOf([&] { volume->sync(); }), kENOSPC) << "the failed flush must be reported";
    device->heal();
    tick();
    EXPECT_EQ(volume->ioStats().dirtyPages, 0u) << "and tried again";

    const int syncs = device->count(DiskCall::flush);
    tick();
    EXPECT_EQ(device->count(DiskCall::flush), syncs) << "nothing to write, so nothing is done";
    volume->write(file, 0, bytesOf("last"));
    volume->unmount();
    EXPECT_TRUE(timers.live().empty());
    const int closed = device->count(DiskCall::flush);
    tick();
    volume.reset();
    tick();
    EXPECT_EQ(device->count(DiskCall::flush), closed);
    EXPECT_EQ(sample.cat("/file"), "last");
}

} // namespace
} // namespace tavelin
