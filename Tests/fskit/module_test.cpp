// What the module answers to probe, load, unload, check and format, and what it reports of it.
#include "module_fixture.hpp"

#include "core/driver2/volume_uuid.hpp"
#include "core/ntfs_error.hpp"
#include "platform/error_numbers.hpp"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <atomic>
#include <utility>

namespace tavelin {
namespace {

using namespace test;
using fskit::FSMatchResult;
using Lines = std::vector<std::string>;

class Module : public VolumeTest {
  protected:
    // The container identifier of this serial number; the volume's own has it too.
    void setSerial(std::uint64_t serial) {
        for (int byte = 0; byte < 8; ++byte) {
            disk->bytes[static_cast<std::size_t>(72 + byte)] =
                static_cast<char>(serial >> (8 * byte));
        }
    }

    struct Network final : fskit::FSResource {};
    const std::string size = std::to_string(disk->bytes.size());
};

TEST_F(Module, ReportsItsStart) {
    const TavelinFileSystem another;
    const std::string event = takeLastEvent();
    for (const char* field :
         {R"("build":)", R"("ev":"module_start")", R"("os":)", R"("version":)"}) {
        EXPECT_NE(event.find(field), std::string::npos) << event;
    }
}

TEST_F(Module, AProbeNamesTheVolumeAndKeepsItsSerialOutOfTheEventLog) {
    sample.leaveUnchecked();
    setSerial(0x1234ABCD5678EF90);
    const auto found = probe();
    EXPECT_EQ(found.result, FSMatchResult::usable);
    EXPECT_EQ(found.name, "Sample");
    EXPECT_EQ(found.containerID->uuid, Driver2::volumeUUID(0x1234ABCD5678EF90));
    EXPECT_EQ(takeLog(), Lines{"info fs: probe: NTFS serial=1234abcd5678ef90 name=Sample"});
    const std::string event = R"({"block":512,"bsd":"disk7s2","ev":"probe","result":"usable",)"
                              R"("serial":"ef90","size":)" +
                              size + R"(,"writable":true})";
    EXPECT_EQ(takeEvents(), Lines{event});
    EXPECT_EQ(module.volume, nullptr);

    ASSERT_EQ(load(), 0);
    EXPECT_EQ(volume().volumeID().uuid, found.containerID->uuid);
    EXPECT_EQ(volume().name().data(), "Sample");
}

TEST_F(Module, AVolumeThatCannotBeReadStillProbesAsUsable) {
    sample.leaveUnchecked();
    setSerial(1);
    disk->hook = [](auto, std::uint64_t offset, std::size_t length) -> std::size_t {
        if (offset >= 512) {
            throw fskit::fs_errorForPOSIXError(kEIO);
        }
        return std::min<std::size_t>(length, 512);
    };
    EXPECT_EQ(probe().name, "NTFS");
    disk->hook = nullptr;

    start();
    volume().ntfs->setLabel("");
    EXPECT_EQ(unload(), 0);
    EXPECT_EQ(probe().name, "NTFS") << "an empty label";
    ASSERT_EQ(load(), 0);
    EXPECT_EQ(volume().name().data(), "NTFS");
}

TEST_F(Module, WhatIsNoVolumeIsNotRecognisedAndNotLoaded) {
    const auto network = std::make_shared<Network>();
    EXPECT_EQ(module.probeResource(network).result, FSMatchResult::notRecognized);
    EXPECT_EQ(codeOf(module.loadResource(network, {})), kENODEV);
    EXPECT_EQ(takeEvents(),
              (Lines{R"({"ev":"probe","result":"not_block_device"})",
                     R"({"errno":19,"ev":"load","ok":false,"why":"not_block_device"})"}));

    sample.leaveUnchecked();
    disk->bytes.assign(1 << 20, '\0');
    disk->physicalBlock = 4096;
    EXPECT_EQ(probe().result, FSMatchResult::notRecognized);
    EXPECT_EQ(load({"-o", "ro"}), kEINVAL);
    EXPECT_EQ(module.volume, nullptr);
    EXPECT_EQ(
        takeEvents(),
        (Lines{R"({"block":512,"bsd":"disk7s2","ev":"probe","result":"not_ntfs",)"
               R"("size":1048576})",
               R"({"bsd":"disk7s2","err":"22 Invalid argument","errno":22,"ev":"load",)"
               R"("media_writable":true,"ms":0,"ok":false,"options":"-o ro","ro_req":true})"}));
    EXPECT_EQ(takeLog(), Lines{"error fs: load failed: 22 Invalid argument"});
    EXPECT_EQ(errorTally().summary(),
              (Fields{{"counts", Fields{{"22", 1}}},
                      {"first", FieldValue::List{FieldValue("loadResource:22")}}}));
}

TEST_F(Module, LinksAreMadeInTheFormThatTheLoadAskedFor) {
    for (const char* form : {"windows", "interix"}) {
        start({"-o", std::string("symlinks=") + form});
        const Item link = *requests().symlink(root, form, "folder/file");
        const auto tag = requests().attributes(link)->native().reparseTag;
        EXPECT_EQ(tag != 0, form == std::string("windows")) << "Interix links have no tag";
        EXPECT_EQ(requests().readlink(link)->data(), "folder/file");
        EXPECT_EQ(unload(), 0);
    }
}

TEST_F(Module, LoadObeysOptionsAndMedium) {
    struct Case {
        Options options;
        bool writable;
        bool readOnly;
        bool windowsNames;
    };
    for (const Case& c :
         {Case{{}, true, false, false}, Case{{"-o", "windows_names"}, true, false, true},
          Case{{"rdonly"}, true, true, false}, Case{{}, false, true, false}}) {
        disk->writable = c.writable;
        errorTally().record(kEIO, "before");
        deviceErrorEvents = 7;
        ASSERT_EQ(load(c.options), 0);
        EXPECT_EQ(module.containerStatus.state, fskit::FSContainerState::ready);
        EXPECT_EQ(volume().ntfs->readOnly(), c.readOnly);
        EXPECT_EQ(volume().requestedMountOptions(),
                  c.readOnly ? fskit::FSMountOptionsReadOnly : 0u);
        EXPECT_EQ(services.timers().live().size(), c.readOnly ? 0u : 1u);
        EXPECT_EQ(volume().ntfs->windowsNames(), c.windowsNames);
        EXPECT_EQ(deviceErrorEvents, 0);
        const std::string words = fmt::format("{}", fmt::join(c.options, " "));
        EXPECT_EQ(takeLog(), Lines{fmt::format("info fs: load: mounted readOnly={} "
                                               "windowsNames={} options={}",
                                               c.readOnly, c.windowsNames, words)});
        EXPECT_EQ(takeLastEvent(),
                  fmt::format(R"({{"bsd":"disk7s2","ev":"load","fell_back":false,)"
                              R"("media_writable":{},"ms":0,"ok":true,"options":"{}",)"
                              R"("ro":{},"ro_req":{}}})",
                              c.writable, words, c.readOnly, c.readOnly));
        EXPECT_EQ(unload(), 0);
        EXPECT_EQ(module.volume, nullptr);
        EXPECT_EQ(takeLastEvent(),
                  R"({"errors":{"counts":{},"first":[]},"ev":"unload","ok":true})");
    }
    EXPECT_EQ(unload(), 0) << "nothing is loaded";
}

TEST_F(Module, ActivateLeavesTheWindowsRuleAsItIsUnlessToldOtherwise) {
    ASSERT_EQ(load({"-owindows_names"}), 0);
    EXPECT_EQ((*requests().activate({"-f", "x"})).get(), volume().root().get());
    EXPECT_TRUE(volume().ntfs->windowsNames());
    EXPECT_EQ(takeLog().back(), "info fs: activate: windowsNames=true options=-f x");
    EXPECT_EQ(takeLastEvent(),
              R"({"ev":"activate","kernel_cache":false,"options":"-f x","ro":false})");
    EXPECT_EQ(unload(), 0);
    ASSERT_EQ(load(), 0);
    EXPECT_FALSE(volume().ntfs->windowsNames());
    root = *requests().activate({"-o", "windows_names"});
    EXPECT_EQ(requests().create(root, "a:b").code(), kEINVAL);
}

TEST_F(Module, ASecondLoadFindsAllThatWasWrittenThroughTheFirst) {
    ASSERT_EQ(load(), 0);
    const std::shared_ptr<TavelinVolume> first = module.volume;
    const Item oldRoot = first->root();
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(requests().create(oldRoot, "file " + std::to_string(i)).code(), 0);
    }
    start();
    EXPECT_NE(module.volume, first);
    EXPECT_EQ(requests().lookup(root, "file 49").code(), 0);
    EXPECT_EQ(requests().create(root, "later").code(), 0);
    EXPECT_EQ(Requests(*first).lookup(oldRoot, "file 0").code(), kENXIO);
    EXPECT_EQ(Requests(*first).deactivate(), 0) << "closed already";
    EXPECT_EQ(unload(), 0) << "of the first load";
    ASSERT_NE(module.volume, nullptr);
    EXPECT_EQ(requests().lookup(root, "later").code(), 0);
    EXPECT_EQ(unload(), 0);
    EXPECT_EQ(module.volume, nullptr);
    save();
    EXPECT_EQ(sample.list("/").size(), 51u);
}

// A disk by another name, or one that was pulled out.
struct OtherDisk final : MemoryResource {
    using MemoryResource::MemoryResource;
    std::string BSDName() const override { return name; }
    bool isRevoked() const override { return isGone; }
    std::string name = "disk8s1";
    bool isGone = false;
};

TEST_F(Module, ASecondLoadLeavesAnActiveVolumeInUse) {
    const auto own = std::make_shared<OtherDisk>(disk->bytes);
    disk = own;
    start();
    const std::shared_ptr<TavelinVolume> first = module.volume;
    const Item file = *requests().create(root, "file");
    static_cast<void>(takeEvents());
    static_cast<void>(takeLog());
    ASSERT_EQ(load({"-o", "ro"}), 0);
    EXPECT_EQ(module.volume, first);
    EXPECT_EQ(takeLog(), Lines{"info fs: load: the volume is active, and stays as it is"});
    EXPECT_EQ(takeEvents(), Lines{R"({"again":true,"bsd":"disk8s1","ev":"load","fell_back":false,)"
                                  R"("media_writable":true,"ms":0,"ok":true,"options":"-o ro",)"
                                  R"("ro":false,"ro_req":true})"});
    EXPECT_EQ(*requests().write(file, 0, "content"), 7u);
    EXPECT_EQ(unload(), 0) << "of the second load";
    EXPECT_EQ(takeLastEvent(), R"({"active":true,"errors":{"counts":{},"first":[]},)"
                               R"("ev":"unload","ok":true})");
    EXPECT_EQ(*requests().read(file, 0, 100), "content");

    const auto other = std::make_shared<MemoryResource>(disk->bytes);
    EXPECT_EQ(codeOf(module.loadResource(other, {{"-f"}})), kEBUSY);
    EXPECT_EQ(takeLog(), Lines{"error fs: load failed: disk8s1 is active, and no other can be "
                               "loaded beside it"});
    EXPECT_EQ(takeEvents(), Lines{R"({"bsd":"disk7s2","errno":16,"ev":"load",)"
                                  R"("media_writable":true,"ms":0,"ok":false,"options":"-f",)"
                                  R"("ro_req":false,"why":"active"})"});
    EXPECT_EQ(requests().create(root, "later").code(), 0);

    own->isGone = true;
    ASSERT_EQ(codeOf(module.loadResource(other, {})), 0) << "nobody can use the first any more";
    EXPECT_NE(module.volume, first);
    root = *requests().activate();
    EXPECT_EQ(requests().lookup(root, "file").code(), 0) << "synchronised by the unload";
    disk = other;
    EXPECT_EQ(unload(), 0);
    EXPECT_EQ(module.volume, nullptr);
}

TEST_F(Module, DeactivationClosesVolumeAndJournal) {
    start();
    EXPECT_EQ(requests().create(root, "file").code(), 0);
    requests().unmount();
    EXPECT_EQ(volume().ioStatistics().get().dirtyPages, 0u);
    EXPECT_EQ(requests().deactivate(), 0);
    const std::string closed = disk->bytes;
    const auto writes = disk->count(MemoryResource::Call::write);
    save();
    EXPECT_EQ(sample.list("/"), Lines{"file"});
    EXPECT_EQ(requests().create(root, "late").code(), kENXIO);
    EXPECT_EQ(requests().activate().code(), kENXIO);
    EXPECT_EQ(requests().deactivate(), 0);
    EXPECT_EQ(unload(), 0) << "there is nothing left to do";
    EXPECT_EQ(disk->count(MemoryResource::Call::write), writes);
    EXPECT_TRUE(disk->bytes == closed);
    start();
    EXPECT_EQ(requests().lookup(root, "file").code(), 0);
}

TEST_F(Module, ReadOnlyAtActivationRefusesChanges) {
    start();
    EXPECT_EQ(*requests().write(*requests().create(root, "file"), 0, "content"), 7u);
    EXPECT_EQ(*requests().activate({"-o", "rdonly"}), root);
    EXPECT_FALSE(volume().readOnly()) << "programs use it already";
    EXPECT_EQ(unload(), 0);
    ASSERT_EQ(load(), 0);
    root = *requests().activate({"-o", "rdonly"});
    EXPECT_EQ(volume().requestedMountOptions(), fskit::FSMountOptionsReadOnly);
    EXPECT_NE(takeLastEvent().find(R"("ro":true)"), std::string::npos);
    expectReadOnly(*requests().lookup(root, "file"));
}

// However far the writes of a change came, a probe names the volume as the next load does.
TEST_F(Module, AProbeAfterAPowerCutNamesTheVolumeAsALoadDoes) {
    const std::string original = disk->bytes;
    bool old = false;
    bool fresh = false;
    for (int writes = 0; writes < 40 && !fresh; ++writes) {
        disk->bytes = original;
        start();
        EXPECT_EQ(requests().setName("After"), 0);
        EXPECT_EQ(volume().name().data(), "After");
        std::atomic<int> left = writes;
        disk->hook = [&](MemoryResource::Call call, auto, std::size_t length) {
            return call == MemoryResource::Call::write && left-- <= 0
                       ? throw fskit::fs_errorForPOSIXError(kEIO)
                       : length;
        };
        const bool durable = requests().synchronize() == 0;
        const std::string cut = disk->bytes;
        static_cast<void>(unload());
        disk->hook = nullptr;
        disk->bytes = cut;
        const std::string probed = *probe().name;
        ASSERT_EQ(load(), 0);
        EXPECT_EQ(volume().name().data(), probed) << "after " << writes << " writes";
        old = old || probed == "Sample";
        fresh = durable;
        EXPECT_TRUE(!durable || probed == "After");
        EXPECT_EQ(unload(), 0);
    }
    EXPECT_TRUE(old && fresh);
}

TEST_F(Module, AFailedUnloadReportsAndForgets) {
    start();
    EXPECT_EQ(requests().create(root, "file").code(), 0);
    const auto failing = [](MemoryResource::Call call, auto, std::size_t length) {
        return call == MemoryResource::Call::write ? throw fskit::fs_errorForPOSIXError(kENXIO)
                                                   : length;
    };
    disk->hook = failing;
    static_cast<void>(takeLog());
    EXPECT_EQ(requests().synchronize(fskit::FSSyncFlags::noWait), 0);
    EXPECT_EQ(requests().synchronize(), kENXIO);
    requests().unmount();
    EXPECT_TRUE(volume().isActive());
    EXPECT_EQ(requests().deactivate(), kENXIO);
    EXPECT_FALSE(volume().isActive()) << "a load need not leave it as it is any more";
    static_cast<void>(takeEvents());
    EXPECT_EQ(unload(), kENXIO);
    const std::string event = takeLastEvent();
    for (const char* part :
         {R"("errno":6)", R"("ok":false)", "device_write:6", "synchronize:6", "deactivate:6"}) {
        EXPECT_NE(event.find(part), std::string::npos) << event;
    }
    EXPECT_EQ(event.find("unloadResource"), std::string::npos) << "it is reported before it counts";
    EXPECT_EQ(module.volume, nullptr);
    EXPECT_EQ(unload(), 0);

    disk->hook = nullptr;
    start();
    EXPECT_EQ(requests().create(root, "other").code(), 0);
    EXPECT_EQ(requests().synchronize(), 0);
    disk->hook = failing;
    EXPECT_EQ(unload(), kENXIO) << "the journal does not end";

    // Its $LogFile shares pages with other files, so that it has no journal.
    const SampleVolume unjournaled({.clusterSize = 512});
    disk = std::make_shared<MemoryResource>(readFile(unjournaled.image()));
    start();
    EXPECT_EQ(requests().create(root, "third").code(), 0);
    bool hasFailed = false; // all that comes behind it succeeds
    disk->hook = [&](MemoryResource::Call call, auto offset, std::size_t length) {
        const bool fails = call == MemoryResource::Call::write && !std::exchange(hasFailed, true);
        return fails ? failing(call, offset, length) : length;
    };
    EXPECT_EQ(unload(), kENXIO) << "the volume does not end";
    sample.leaveUnchecked(); // it stays marked
}

class Check : public Module {
  protected:
    struct Task final : fskit::FSTask {
        void logMessage(const std::string&) override {}
        void didComplete(const std::optional<fskit::Error>& error) override {
            ++completed;
            code = codeOf(error);
        }
        int completed = 0;
        std::int64_t code = -1;
    };

    // The number with which the check is refused, 0 when it is accepted.
    std::int64_t start(const Options& words) {
        const auto started = module.startCheck(task, {words});
        if (started) {
            progress = *started;
        }
        return codeOf(started);
    }

    const std::shared_ptr<Task> task = std::make_shared<Task>();
    std::shared_ptr<fskit::NSProgress> progress;
};

TEST_F(Check, IsRefusedWithoutAVolumeAndForRepairs) {
    const std::string rest = R"("ev":"check",)";
    EXPECT_EQ(start({"-q", "-x"}), kEINVAL);
    EXPECT_EQ(takeEvents(), Lines{R"({"errno":22,)" + rest + R"("options":"-q -x"})"});
    EXPECT_EQ(takeLog(), Lines{});
    EXPECT_EQ(start({"-n"}), kENXIO);
    EXPECT_EQ(takeEvents(), Lines{R"({"errno":6,)" + rest + R"("loaded":false,"mode":"verify"})"});
    EXPECT_EQ(takeLog(), Lines{"info fs: check: mode=verify -> errno 6"});
    ASSERT_EQ(load(), 0);
    EXPECT_EQ(start({"-y"}), kENOTSUP);
    EXPECT_EQ(takeLastEvent(), R"({"errno":45,)" + rest + R"("loaded":true,"mode":"repair"})");
    EXPECT_EQ(services.queue().run(), 0u);
    EXPECT_EQ(task->completed, 0);
    EXPECT_EQ(codeOf(module.startFormat(task, {})), kENOTSUP);
}

TEST_F(Check, OfALoadedVolumeCompletesLaterAndOnce) {
    ASSERT_EQ(load(), 0);
    static_cast<void>(takeEvents());
    EXPECT_EQ(start({}), 0);
    EXPECT_EQ(takeEvents(), Lines{R"({"errno":0,"ev":"check","mode":"quick"})"});
    EXPECT_EQ(progress->completedUnitCount(), 0);
    EXPECT_EQ(task->completed, 0);
    EXPECT_EQ(services.queue().run(), 1u);
    EXPECT_EQ(progress->completedUnitCount(), progress->totalUnitCount());
    EXPECT_EQ(task->completed, 1);
    EXPECT_EQ(task->code, 0);
}

} // namespace
} // namespace tavelin
