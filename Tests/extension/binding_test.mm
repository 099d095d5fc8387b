// The binding on a real volume, driven as FSKit drives it.
#import "extension/double/daemon.h"

#include "diagnostics/op_counter.hpp"
#include "extension/reply.hpp"
#include "platform/product.hpp"
#include "support/on_threads.hpp"
#include "support/own_group.hpp"
#include "support/replaced_services.hpp"
#include "support/sample_volume.hpp"

#include <gtest/gtest.h>

#include <array>
#include <functional>

namespace tavelin::test {

namespace {

class Binding : public testing::TestWithParam<Release> {
  protected:
    ImageResource *resource(BOOL writable = YES) {
        return [ImageResource resourceWithImage:sample_.image() writable:writable];
    }

    std::unique_ptr<ReplacedServices> replaced_ = std::make_unique<ReplacedServices>();
    SampleVolume sample_;
    NSAutoreleasePool *pool_ = [NSAutoreleasePool new];
    Daemon daemon_{GetParam()};

    void TearDown() override { [pool_ release]; }
};

std::vector<std::string> namesIn(NSArray<FSFileName *> *array) {
    std::vector<std::string> names;
    for (FSFileName *name in array) {
        names.emplace_back(static_cast<const char *>(name.data.bytes), name.data.length);
    }
    return names;
}

NSData *data(const std::string &text) {
    return [NSData dataWithBytes:text.data() length:text.size()];
}

TEST_P(Binding, ServesAVolumeFromProbeToUnload) {
    const Answer probe = daemon_.probe(resource());
    ASSERT_TRUE(probe.ok());
    FSProbeResult *found = static_cast<FSProbeResult *>(probe.object.get());
    EXPECT_EQ(found.result, FSMatchResultUsable);
    EXPECT_TRUE([found.name isEqualToString:@"Sample"]);

    daemon_.bringUp(resource());
    EXPECT_TRUE([daemon_.volume().volumeID.uuid isEqual:found.containerID.uuid]);
    FSStatFSResult *statistics = daemon_.volume().volumeStatistics;
    EXPECT_STREQ(statistics.fileSystemTypeName.UTF8String, product::kShortName);
    EXPECT_EQ(statistics.totalBytes, statistics.totalBlocks * 4096);
    EXPECT_EQ(daemon_.volume().requestedMountOptions, FSMountOptions{0});
    EXPECT_FALSE(static_cast<id<FSVolumeOpenCloseHandler>>(daemon_.volume()).isOpenCloseInhibited)
        << "no synchronise need come";
    EXPECT_TRUE(daemon_.volume().supportedVolumeCapabilities.doesNotSupportImmutableFiles);
    EXPECT_EQ(daemon_.volume().itemDeactivationPolicy,
              FSItemDeactivationForRemovedItems | FSItemDeactivationForPreallocatedItems);

    FSItem *const root = daemon_.root();
    const Answer directory = daemon_.create(root, "Photos", FSItemTypeDirectory);
    const Answer file = daemon_.create(directory.item(), "été.jpg");
    const Answer link = daemon_.link(root, "latest", "Photos/été.jpg");
    ASSERT_TRUE(directory.ok() && file.ok() && link.ok());
    EXPECT_EQ(file.text(), "été.jpg");
    EXPECT_EQ(daemon_.readLink(link.item()).text(), "Photos/été.jpg");
    EXPECT_EQ(daemon_.write(file.item(), "the picture").number, 11u);
    EXPECT_EQ(daemon_.readText(file.item()), "the picture");
    const Answer nothing = daemon_.write(file.item(), "");
    EXPECT_TRUE(nothing.ok() && nothing.number == 0);
    const Answer resized = daemon_.setSize(file.item(), 7);
    EXPECT_EQ(resized.attributes().size, 7u);
    EXPECT_EQ(resized.number, static_cast<std::uint64_t>(FSItemAttributeSize));
    EXPECT_EQ(resized.attributes().type, FSItemTypeFile);
    EXPECT_TRUE([resized.attributes() isValid:FSItemAttributeModifyTime]);

    EXPECT_TRUE(daemon_.setXattr(file.item(), "com.apple.test", data("value")).ok());
    EXPECT_TRUE(
        [daemon_.getXattr(file.item(), "com.apple.test").object.get() isEqual:data("value")]);
    EXPECT_EQ(namesIn(daemon_.listXattrs(file.item()).object.get()),
              std::vector<std::string>{"com.apple.test"});
    EXPECT_TRUE(daemon_.setXattr(file.item(), "com.apple.test", nil, FSSetXattrPolicyDelete).ok());

    const Answer renamed = daemon_.rename(file.item(), directory.item(), "été.jpg", root, "kept");
    EXPECT_EQ(renamed.text(), "kept");
    EXPECT_TRUE(daemon_.open(file.item()).ok());
    EXPECT_TRUE(daemon_.close(file.item()).ok());
    EXPECT_EQ(daemon_.lookup(root, "kept").item(), file.item());
    EXPECT_TRUE(daemon_.setVolumeName("Holiday").ok());
    EXPECT_TRUE([daemon_.volume().name.string isEqualToString:@"Holiday"]);

    for (const Answer *held : {&directory, &file, &link}) {
        EXPECT_TRUE(daemon_.reclaim(held->item()).ok());
    }
    daemon_.takeDown();
    EXPECT_EQ(sample_.cat("/kept"), "the pic");
    static_cast<void>(sample_.check()); // throws when the volume is not whole
    EXPECT_TRUE([static_cast<FSProbeResult *>(daemon_.probe(resource()).object.get()).name
        isEqualToString:@"Holiday"]);
}

TEST_P(Binding, TellsLimitsAndCapabilities) {
    daemon_.bringUp(resource());
    ::TavelinServedVolume *const volume = daemon_.volume();
    EXPECT_EQ(volume.maximumLinkCount, 1024);
    EXPECT_EQ(volume.maximumNameLength, 255);
    EXPECT_EQ(volume.maximumXattrSize, 64 << 20);
    EXPECT_EQ(volume.maximumFileSize, std::uint64_t{16} << 40);
    EXPECT_FALSE(volume.restrictsOwnershipChanges || volume.truncatesLongNames);
    FSVolumeSupportedCapabilities *const can = volume.supportedVolumeCapabilities;
    EXPECT_TRUE(can.supportsPersistentObjectIDs && can.supportsSymbolicLinks &&
                can.supportsSparseFiles && can.supports2TBFiles && can.supportsHiddenFiles &&
                can.supports64BitObjectIDs && can.supportsFastStatFS);
    EXPECT_TRUE(can.doesNotSupportImmutableFiles && can.doesNotSupportSettingFilePermissions);
    EXPECT_FALSE(can.supportsHardLinks);
    EXPECT_EQ(can.caseFormat, FSVolumeCaseFormatSensitive);
    daemon_.takeDown();
}

TEST_P(Binding, ListsPageAfterPage) {
    daemon_.bringUp(resource());
    std::vector<std::string> made;
    for (int i = 0; i < 20; ++i) {
        made.push_back("file" + std::to_string(10 + i));
        ASSERT_TRUE(daemon_.reclaim(daemon_.create(daemon_.root(), made.back()).item()).ok());
    }
    for (const std::size_t room : {1, 3, 1000}) {
        EXPECT_EQ(daemon_.list(daemon_.root(), room, true), made);
        std::vector<std::string> withDots{".", ".."};
        withDots.insert(withDots.end(), made.begin(), made.end());
        EXPECT_EQ(daemon_.list(daemon_.root(), room, false), withDots);
    }
    EXPECT_EQ(daemon_.volume().handedItemCount, 1u) << "what a listing shows is not handed out";
    daemon_.takeDown();
}

TEST_P(Binding, AnswersErrorsInThePOSIXDomain) {
    EXPECT_EQ(daemon_.load(made([OtherResource new])).code(), kENODEV);
    EXPECT_EQ(daemon_.state(), FSContainerStateNotReady);
    EXPECT_EQ(static_cast<FSProbeResult *>(daemon_.probe(nil).object.get()).result,
              FSMatchResultNotRecognized);
    RecordingTask *task = made([RecordingTask new]);
    EXPECT_EQ(daemon_.check(@[ @"-q" ], task).code(), kENXIO);
    EXPECT_EQ(daemon_.format().code(), kENOTSUP);

    daemon_.bringUp(resource());
    FSItem *const root = daemon_.root();
    const Answer directory = daemon_.create(root, "folder", FSItemTypeDirectory);
    const Answer file = daemon_.create(directory.item(), "file");
    FSItem *const foreign = made([FSItem new]);

    EXPECT_EQ(daemon_.lookup(root, "nothing").code(), kENOENT);
    EXPECT_EQ(daemon_.hardLink(file.item(), root, "other").code(), kENOTSUP);
    EXPECT_EQ(daemon_.remove(directory.item(), root, "folder").code(), kENOTEMPTY);
    EXPECT_EQ(daemon_.readLink(file.item()).code(), kEINVAL);
    EXPECT_EQ(daemon_.check(@[ @"-y" ], task).code(), kENOTSUP);
    EXPECT_EQ(task->_completions, 0);

    // What FSKit promises not to send.
    for (FSItem *item : {static_cast<FSItem *>(nil), foreign}) {
        EXPECT_EQ(daemon_.getAttributes(item).code(), kENOENT);
        EXPECT_EQ(daemon_.setSize(item, 1).code(), kENOENT);
        EXPECT_EQ(daemon_.lookup(item, "file").code(), kENOENT);
        EXPECT_EQ(daemon_.create(item, "file").code(), kENOENT);
        EXPECT_EQ(daemon_.read(item, 1).code(), kENOENT);
        EXPECT_EQ(daemon_.write(item, "x").code(), kENOENT);
        EXPECT_EQ(daemon_.listXattrs(item).code(), kENOENT);
        EXPECT_EQ(daemon_.reclaim(item).code(), 0);
    }
    for (const char *name : {"", "\xff\xfe"}) {
        EXPECT_EQ(daemon_.lookup(root, name).code(), kEINVAL);
        EXPECT_EQ(daemon_.create(root, name).code(), kEINVAL);
        EXPECT_EQ(daemon_.rename(file.item(), directory.item(), "file", root, name).code(),
                  kEINVAL);
        EXPECT_EQ(daemon_.setXattr(file.item(), name, data("x")).code(), kEINVAL);
    }
    EXPECT_TRUE(daemon_.reclaim(file.item()).ok() && daemon_.reclaim(directory.item()).ok());
    daemon_.takeDown();
}

TEST_P(Binding, LosesNothingWhateverEndFSKitMakes) {
    const std::vector<std::function<void()>> ends{
        [&] { // umount(8), which is not followed by an unload
            EXPECT_TRUE(daemon_.unmount().ok() && daemon_.deactivate().ok());
            EXPECT_EQ(daemon_.state(), FSContainerStateNotReady) << "only a load opens it again";
            EXPECT_EQ(daemon_.check(@[ @"-q" ], made([RecordingTask new])).code(), kENXIO);
        },
        [&] { EXPECT_TRUE(daemon_.deactivate().ok()); },
        [&] { // a load before the unload's reply has returned
            __block bool loaded = false;
            [daemon_.module() unloadResource:resource()
                                     options:[FSTaskOptions optionsWithWords:@[]]
                                replyHandler:^(NSError *) {
                                    loaded = daemon_.load(resource()).ok();
                                }];
            EXPECT_TRUE(loaded);
            RecordingTask *task = made([RecordingTask new]);
            EXPECT_EQ(daemon_.check(@[ @"-q" ], task).code(), 0) << "it is loaded";
        }};
    std::vector<std::string> expected;
    for (const auto &end : ends) {
        daemon_.bringUp(resource());
        expected.push_back("file" + std::to_string(expected.size()));
        ASSERT_TRUE(daemon_.create(daemon_.root(), expected.back()).ok());
        end();
    }
    daemon_.bringUp(resource(), @[ @"-o", @"rdonly" ]);
    EXPECT_EQ(daemon_.list(daemon_.root(), 100, true), expected);
    EXPECT_EQ(daemon_.create(daemon_.root(), "new").code(), kEROFS);
    EXPECT_EQ(daemon_.volume().requestedMountOptions, FSMountOptionsReadOnly);
    daemon_.takeDown();
    static_cast<void>(sample_.check());
}

TEST_P(Binding, KeepsAnActiveVolumeThroughASecondLoad) {
    daemon_.bringUp(resource());
    ::TavelinServedVolume *const first = daemon_.volume();
    const Answer file = daemon_.create(daemon_.root(), "file");
    ASSERT_TRUE(daemon_.open(file.item()).ok() && daemon_.write(file.item(), "content").ok());
    EXPECT_EQ(daemon_.load(resource()).object.get(), first) << "for a check, say";
    EXPECT_EQ(daemon_.check(@[ @"-q" ], made([RecordingTask new])).code(), 0);
    EXPECT_TRUE(daemon_.unload().ok());
    EXPECT_EQ(daemon_.state(), FSContainerStateActive);
    __block int refusals = 0;
    [daemon_.module() loadResource:made([OtherResource new])
                           options:[FSTaskOptions optionsWithWords:@[]]
                      replyHandler:^(FSVolume *none, NSError *error) {
                          refusals += none == nil && error.code == kENODEV;
                      }];
    EXPECT_EQ(refusals, 1);
    EXPECT_EQ(daemon_.state(), FSContainerStateActive);
    EXPECT_EQ(daemon_.readText(file.item()), "content");
    EXPECT_EQ(daemon_.lookup(daemon_.root(), "file").item(), file.item());
    EXPECT_TRUE(daemon_.close(file.item()).ok() && daemon_.reclaim(file.item()).ok());
    daemon_.takeDown();
    EXPECT_EQ(sample_.cat("/file"), "content");
}

TEST_P(Binding, FailsWhereNothingCanBeMadeAndTriesAgain) {
    [FSItem setCanBeMade:NO];
    EXPECT_EQ(daemon_.load(resource()).code(), kENOMEM);
    [FSItem setCanBeMade:YES];
    daemon_.bringUp(resource());
    const Answer made = daemon_.create(daemon_.root(), "file");
    ASSERT_TRUE(daemon_.reclaim(made.item()).ok());
    [FSItem setCanBeMade:NO];
    EXPECT_EQ(daemon_.lookup(daemon_.root(), "file").code(), kENOMEM);
    [FSItem setCanBeMade:YES];
    const Answer found = daemon_.lookup(daemon_.root(), "file");
    EXPECT_NE(found.item(), nil);
    EXPECT_TRUE(found.ok() && daemon_.reclaim(found.item()).ok());
    daemon_.takeDown();
}

TEST_P(Binding, RepliesToAReclaimWithNothingLocked) {
    daemon_.bringUp(resource());
    const Answer file = daemon_.create(daemon_.root(), "file");
    __block int found = 0;
    [daemon_.volume() reclaimItem:file.item()
                     replyHandler:^(NSError *) {
                         const Answer again = daemon_.lookup(daemon_.root(), "file");
                         found += again.ok() && daemon_.reclaim(again.item()).ok();
                     }];
    EXPECT_EQ(found, 1);
    daemon_.takeDown();
}

TEST_P(Binding, CompletesACheckOnceAndLater) {
    daemon_.bringUp(resource());
    RecordingTask *task = made([RecordingTask new]);
    const Answer started = daemon_.check(@[ @"-q" ], task);
    ASSERT_TRUE(started.ok());
    NSProgress *progress = static_cast<NSProgress *>(started.object.get());
    EXPECT_EQ(progress.completedUnitCount, 0);
    EXPECT_EQ(task->_completions, 0);
    EXPECT_EQ(replaced_->queue().run(), 1u);
    EXPECT_EQ(progress.completedUnitCount, progress.totalUnitCount);
    EXPECT_EQ(task->_completions, 1);
    EXPECT_EQ(task->_errorCode, 0);
    daemon_.takeDown();
}

TEST_P(Binding, GetsAcrossAMisbehavingDevice) {
    ImageResource *device = resource();
    device->_shortBytes = 4096;
    daemon_.bringUp(device);
    std::string content(300'000, 'a');
    content.back() = 'z';
    const Answer file = daemon_.create(daemon_.root(), "file");
    EXPECT_EQ(daemon_.write(file.item(), content).number, content.size());
    EXPECT_EQ(daemon_.synchronize().code(), 0);
    device->_shortBytes = 0;
    EXPECT_TRUE(daemon_.readText(file.item()) == content);

    const auto written = [&](const char *text) {
        const int code = daemon_.write(file.item(), text).code();
        return code != 0 ? code : daemon_.synchronize().code();
    };
    device->_stalled = true;
    EXPECT_EQ(written("1"), kEIO);
    device->_stalled = false;
    device->_foreignErrors = 1'000;
    EXPECT_EQ(written("2"), kEIO);
    device->_foreignErrors = 0;
    EXPECT_EQ(written("3"), 0);

    EXPECT_EQ(daemon_.write(file.item(), "4").code(), 0);
    device->_revokedNow = true;
    EXPECT_TRUE(daemon_.reclaim(file.item()).ok());
    const std::vector<Answer> answers = daemon_.abandon();
    for (const Answer &answer : answers) {
        EXPECT_EQ(answer.replies, 1);
    }
    EXPECT_EQ(answers.front().code(), kENXIO) << "the synchronise says that data is lost";
    EXPECT_EQ(daemon_.state(), FSContainerStateNotReady);
    ::TavelinServedVolume *const lost = daemon_.volume();
    daemon_.bringUp(resource(NO));
    EXPECT_TRUE([lost deactivated:0]);
    EXPECT_EQ(daemon_.state(), FSContainerStateActive) << "the late end is another volume's";
    EXPECT_EQ(daemon_.volume().requestedMountOptions, FSMountOptionsReadOnly);
    daemon_.takeDown();
}

TEST_P(Binding, GivesOneObjectForAFileAndKeepsItUntilReclaimed) {
    daemon_.bringUp(resource());
    FSItem *const root = daemon_.root();
    const Answer file = daemon_.create(root, "file");
    EXPECT_EQ(daemon_.lookup(root, "file").item(), file.item());
    EXPECT_EQ(daemon_.volume().handedItemCount, 2u);

    if (daemon_.hasHandlers()) {
        static_cast<void>(OpCounter::shared().dumpAndReset());
        [FSItem setHasAnswersOnTheirWay:YES];
        EXPECT_TRUE(daemon_.reclaim(file.item()).ok());
        [FSItem setHasAnswersOnTheirWay:NO];
        EXPECT_EQ(daemon_.lookup(root, "file").item(), file.item());
        EXPECT_EQ(daemon_.readText(file.item()), "");
        const std::string counted = OpCounter::shared().dumpAndReset();
        EXPECT_TRUE(counted.starts_with("lookupItem=1") || counted.ends_with("lookupItem=1"));
        EXPECT_EQ(counted.size(), std::string("reclaimItem=1 lookupItem=1").size()) << counted;
    }
    EXPECT_TRUE(daemon_.reclaim(file.item()).ok());
    EXPECT_EQ(daemon_.volume().handedItemCount, 1u);
    EXPECT_TRUE(daemon_.getAttributes(file.item()).ok()) << "a late request is answered";

    const Answer again = daemon_.lookup(root, "file");
    EXPECT_NE(again.item(), file.item());
    EXPECT_TRUE(daemon_.reclaim(file.item()).ok()) << "a second reclaim of the old one";
    EXPECT_EQ(daemon_.lookup(root, "file").item(), again.item());
    EXPECT_TRUE(daemon_.reclaim(again.item()).ok());
    daemon_.takeDown();
}

TEST_P(Binding, KeepsFilesWithoutANameWhereFSKitDoesNot) {
    daemon_.bringUp(resource());
    FSItem *const root = daemon_.root();
    const auto file = [&](const char *name, const char *text) {
        const Answer made = daemon_.create(root, name);
        EXPECT_TRUE(daemon_.write(made.item(), text).ok());
        return made;
    };
    const Answer removed = file("removed", "one");
    const Answer replaced = file("replaced", "two");
    const Answer fresh = file("fresh", "three");
    const Answer open = file("open", "four");
    ASSERT_TRUE(daemon_.remove(removed.item(), root, "removed").ok());
    ASSERT_TRUE(daemon_.open(open.item()).ok() && daemon_.remove(open.item(), root, "open").ok());
    EXPECT_EQ(daemon_.readText(open.item()), "four");
    EXPECT_TRUE(daemon_.close(open.item()).ok() && daemon_.deactivateItem(open.item()).ok());
    EXPECT_EQ(daemon_.read(open.item(), 1).code(), kESTALE);
    ASSERT_TRUE(
        daemon_.rename(fresh.item(), root, "fresh", root, "replaced", replaced.item()).ok());
    EXPECT_EQ(daemon_.list(root, 100, true), std::vector<std::string>{"replaced"});
    EXPECT_EQ(daemon_.readText(replaced.item()), "two");
    const Answer resized = daemon_.setSize(replaced.item(), 3);
    EXPECT_TRUE(resized.ok() && resized.attributes().linkCount == 0);
    if (daemon_.release() == Release::k15_4) {
        EXPECT_EQ(daemon_.readText(removed.item()), "one");
    } else {
        EXPECT_EQ(daemon_.read(removed.item(), 1).code(), kESTALE) << "FSKit keeps open ones";
    }
    for (const Answer *held : {&removed, &replaced, &fresh, &open}) {
        EXPECT_TRUE(daemon_.reclaim(held->item()).ok());
    }
    EXPECT_EQ(daemon_.read(replaced.item(), 1).code(), kESTALE);
    daemon_.takeDown();
    static_cast<void>(sample_.check());
}

TEST_P(Binding, TellsWithTheAnswerWhatFSKitWouldAskForNext) {
    daemon_.bringUp(resource());
    FSItem *const root = daemon_.root();
    const Answer file = daemon_.create(root, "file");
    const Answer target = daemon_.create(root, "target");
    const Answer written = daemon_.write(file.item(), std::string(100'000, 'x'));
    const Answer found = daemon_.lookup(root, "file");
    const Answer renamed = daemon_.rename(file.item(), root, "file", root, "target", target.item());
    const Answer removed = daemon_.remove(file.item(), root, "target");
    if (daemon_.hasHandlers()) {
        EXPECT_EQ(file.itemAttributes.get().type, FSItemTypeFile);
        EXPECT_EQ(file.directoryAttributes.get().fileID, FSItemIDRootDirectory);
        EXPECT_EQ(written.itemAttributes.get().size, 100'000u);
        EXPECT_LT(written.freeSpace.get().bytes, file.freeSpace.get().bytes);
        EXPECT_EQ(found.itemAttributes.get().size, 100'000u);
        EXPECT_EQ(renamed.number, 0u) << "the link count of the file that was replaced";
        EXPECT_EQ(removed.itemAttributes.get().linkCount, 0u);
        EXPECT_GT(removed.freeSpace.get().bytes, written.freeSpace.get().bytes);
    } else {
        EXPECT_EQ(found.itemAttributes.get(), nil);
    }
    EXPECT_TRUE(daemon_.reclaim(file.item()).ok() && daemon_.reclaim(target.item()).ok());
    daemon_.takeDown();
}

TEST_P(Binding, ReservesSpaceAndTellsDataFromHoles) {
    daemon_.bringUp(resource());
    const Answer file = daemon_.create(daemon_.root(), "file");
    ASSERT_TRUE(daemon_.write(file.item(), std::string(100'000, 'x')).ok());
    const std::uint64_t before = daemon_.statistics();
    EXPECT_EQ(daemon_.preallocate(file.item(), 1 << 20, FSPreallocateFlagsAll).number, 1u << 20);
    EXPECT_EQ(before - daemon_.statistics(), 1u << 20);
    EXPECT_EQ(daemon_.getAttributes(file.item()).attributes().size, 100'000u);
    const Answer unused = daemon_.deactivateItem(file.item());
    EXPECT_TRUE(unused.ok());
    EXPECT_EQ(before, daemon_.statistics());
    EXPECT_EQ(unused.freeSpace.get() != nil, daemon_.hasHandlers());
    EXPECT_EQ(daemon_.preallocate(file.item(), 1 << 20, FSPreallocateFlagsContiguous).code(),
              kENOTSUP);
    EXPECT_EQ(daemon_.preallocate(file.item(), std::size_t{1} << 40, 0).code(), kENOSPC);
    EXPECT_EQ(daemon_.preallocate(file.item(), SIZE_MAX, 0).code(), kEFBIG);
    ASSERT_TRUE(daemon_.setSize(file.item(), 1 << 21).ok());
    if (daemon_.hasHandlers()) {
        const Answer hole = daemon_.seek(file.item(), 5, FSSeekRegionHole);
        EXPECT_GE(hole.number, 100'000u);
        EXPECT_EQ(daemon_.seek(file.item(), 5, FSSeekRegionData).number, 5u);
        EXPECT_EQ(daemon_.seek(file.item(), hole.number, FSSeekRegionData).code(), kENXIO);
    }
    EXPECT_TRUE(daemon_.reclaim(file.item()).ok());
    daemon_.takeDown();
    static_cast<void>(sample_.check());
}

TEST_P(Binding, GivesALookupThatRacesAReclaimALiveItem) {
    daemon_.bringUp(resource());
    ASSERT_TRUE(daemon_.create(daemon_.root(), "file").ok());
    std::atomic<int> failures = 0;
    onThreads(4, [&](int) {
        @autoreleasepool {
            for (int i = 0; i < 500; ++i) {
                const Answer found = daemon_.lookup(daemon_.root(), "file");
                failures += !found.ok() || !daemon_.getAttributes(found.item()).ok();
                failures += !daemon_.reclaim(found.item()).ok();
            }
        }
    });
    EXPECT_EQ(failures, 0);
    const Answer last = daemon_.lookup(daemon_.root(), "file");
    EXPECT_EQ(daemon_.lookup(daemon_.root(), "file").item(), last.item());
    EXPECT_TRUE(daemon_.reclaim(last.item()).ok());
    daemon_.takeDown();
}

TEST(Replies, AnswerExactlyOnceWhateverTheRequestDoes) {
    @autoreleasepool {
        using Arguments = std::tuple<NSNumber *, NSError *>;
        const auto outcome = [](const auto &request) {
            __block int replies = 0;
            __block int code = 0;
            void (^reply)(NSNumber *, NSError *) = ^(NSNumber *, NSError *error) {
                ++replies;
                code = static_cast<int>(error.code);
            };
            serve(reply, request);
            return std::pair(replies, code);
        };
        EXPECT_EQ(outcome([] { return Arguments(@1, nil); }), std::pair(1, 0));
        EXPECT_EQ(outcome([]() -> Arguments { throw std::bad_alloc(); }), std::pair(1, kENOMEM));
        EXPECT_EQ(outcome([]() -> Arguments { throw 1; }), std::pair(1, kEIO));
        EXPECT_EQ(outcome([]() -> Arguments { throw std::runtime_error("broken"); }),
                  std::pair(1, kEIO));
    }
}

std::string nameOf(const testing::TestParamInfo<Release> &release) {
    constexpr std::array kNames{"macOS15", "macOS26", "macOS27"};
    return kNames.at(static_cast<std::size_t>(release.param));
}

INSTANTIATE_TEST_SUITE_P(Releases, Binding,
                         testing::Values(Release::k15_4, Release::k26_0, Release::k27_0), nameOf);

} // namespace

} // namespace tavelin::test
