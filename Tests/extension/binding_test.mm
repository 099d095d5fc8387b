// The binding on a real volume, driven as FSKit drives it: what it adds to the front end.
#import "extension/double/daemon.h"

#include "diagnostics/op_counter.hpp"
#include "extension/handler_answers.hpp"
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

    Answer file(const std::string &name, const std::string &content = {}) {
        Answer made = daemon_.create(daemon_.root(), name);
        EXPECT_TRUE(made.ok() && daemon_.write(made.item(), content).ok());
        return made;
    }

    // Gives back what the test still holds, and takes the volume down.
    void end(std::initializer_list<Answer> held = {}) {
        for (const Answer &each : held) {
            EXPECT_TRUE(daemon_.reclaim(each.item()).ok());
        }
        daemon_.takeDown();
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

RecordingTask *task() {
    return made([RecordingTask new]);
}

TEST_P(Binding, ServesAVolumeFromProbeToUnload) {
    const Answer probe = daemon_.probe(resource());
    ASSERT_TRUE(probe.ok());
    FSProbeResult *found = static_cast<FSProbeResult *>(probe.object.get());
    EXPECT_EQ(found.result, FSMatchResultUsable);
    EXPECT_TRUE([found.name isEqualToString:@"Sample"]);

    daemon_.bringUp(resource());
    EXPECT_TRUE([daemon_.volume().volumeID.uuid isEqual:found.containerID.uuid]);
    FSItem *const root = daemon_.root();
    const Answer directory = daemon_.create(root, "Photos", FSItemTypeDirectory);
    const Answer file = daemon_.create(directory.item(), "file");
    const Answer link = daemon_.link(root, "latest", "Photos/file");
    ASSERT_TRUE(directory.ok() && file.ok() && link.ok());
    EXPECT_EQ(file.number, static_cast<std::uint64_t>(FSItemAttributeMode)) << "is consumed";
    EXPECT_EQ(daemon_.readLink(link.item()).text(), "Photos/file");
    EXPECT_EQ(daemon_.write(file.item(), "the picture").number, 11u);
    EXPECT_EQ(daemon_.readText(file.item()), "the picture");
    const Answer nothing = daemon_.write(file.item(), "");
    EXPECT_TRUE(nothing.ok() && nothing.number == 0);
    const Answer resized = daemon_.setSize(file.item(), 7);
    EXPECT_EQ(resized.attributes().size, 7u);
    EXPECT_EQ(resized.number, static_cast<std::uint64_t>(FSItemAttributeSize));

    EXPECT_TRUE(daemon_.setXattr(file.item(), "com.apple.test", data("value")).ok());
    EXPECT_TRUE(
        [daemon_.getXattr(file.item(), "com.apple.test").object.get() isEqual:data("value")]);
    EXPECT_EQ(namesIn(daemon_.listXattrs(file.item()).object.get()),
              std::vector<std::string>{"com.apple.test"});
    EXPECT_TRUE(daemon_.setXattr(file.item(), "com.apple.test", nil, FSSetXattrPolicyDelete).ok());
    EXPECT_EQ(daemon_.getXattr(file.item(), "com.apple.test").code(), kENOATTR);

    EXPECT_TRUE(daemon_.rename(file.item(), directory.item(), "file", root, "kept").ok());
    EXPECT_TRUE(daemon_.open(file.item()).ok() && daemon_.close(file.item()).ok());
    EXPECT_EQ(daemon_.lookup(root, "kept").item(), file.item());
    EXPECT_TRUE(daemon_.setVolumeName("Holiday").ok());
    EXPECT_TRUE([daemon_.volume().name.string isEqualToString:@"Holiday"]);

    end({directory, file, link});
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
    EXPECT_STREQ(volume.volumeStatistics.fileSystemTypeName.UTF8String, product::kShortName);
    EXPECT_EQ(volume.requestedMountOptions, FSMountOptions{0});
    EXPECT_FALSE(static_cast<id<FSVolumeOpenCloseHandler>>(volume).isOpenCloseInhibited)
        << "no synchronise need come";
    EXPECT_EQ(volume.itemDeactivationPolicy,
              FSItemDeactivationForRemovedItems | FSItemDeactivationForPreallocatedItems);
    end();
}

// Cocoa sends names decomposed, which are stored composed.
TEST_P(Binding, AnswersNamesAsTheyAreStored) {
    daemon_.bringUp(resource());
    FSItem *const root = daemon_.root();
    const std::string stored = "\u00e9t\u00e9";
    const std::string asked = "e\u0301te\u0301";
    const Answer made = daemon_.create(root, asked);
    EXPECT_EQ(made.text(), stored);
    EXPECT_EQ(daemon_.lookup(root, asked).text(), stored);
    EXPECT_TRUE(daemon_.rename(made.item(), root, asked, root, "plain").ok());
    EXPECT_EQ(daemon_.rename(made.item(), root, "plain", root, asked).text(), stored);
    EXPECT_TRUE(daemon_.remove(made.item(), root, asked).ok());
    const Answer link = daemon_.link(root, asked, "target");
    EXPECT_EQ(link.text(), stored);
    EXPECT_EQ(daemon_.setVolumeName(asked).text(), stored);
    EXPECT_EQ(daemon_.create(root, "what?").code(), kEINVAL) << "the Finder passes no options";
    end({made, link});
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

    const Answer file = daemon_.lookup(daemon_.root(), made[0]);
    const Answer failed = daemon_.listPage(file.item(), 0, 9, false, [ListPacker packerWithRoom:1]);
    EXPECT_EQ(failed.code(), kENOTDIR);
    EXPECT_EQ(failed.number, daemon_.hasHandlers() ? 0u : 9u) << "the verifier stays";
    end({file});
}

TEST_P(Binding, AnswersErrorsInThePOSIXDomain) {
    EXPECT_EQ(daemon_.load(made([OtherResource new])).code(), kENODEV);
    EXPECT_EQ(daemon_.state(), FSContainerStateNotReady);
    EXPECT_EQ(daemon_.module().containerStatus.status.code, kENODEV);
    EXPECT_EQ(static_cast<FSProbeResult *>(daemon_.probe(nil).object.get()).result,
              FSMatchResultNotRecognized);
    EXPECT_EQ(daemon_.check(@[ @"-q" ], task()).code(), kENXIO);
    EXPECT_EQ(daemon_.format().code(), kENOTSUP);

    daemon_.bringUp(resource());
    FSItem *const root = daemon_.root();
    const Answer directory = daemon_.create(root, "folder", FSItemTypeDirectory);
    const Answer file = daemon_.create(directory.item(), "file");
    EXPECT_EQ(daemon_.lookup(root, "nothing").code(), kENOENT);
    EXPECT_EQ(daemon_.hardLink(file.item(), root, "other").code(), kENOTSUP);
    EXPECT_EQ(daemon_.remove(directory.item(), root, "folder").code(), kENOTEMPTY);
    EXPECT_EQ(daemon_.readLink(file.item()).code(), kEINVAL);

    // What FSKit promises not to send.
    for (FSItem *item : {static_cast<FSItem *>(nil), made([FSItem new])}) {
        for (const Answer &answer :
             {daemon_.getAttributes(item), daemon_.setSize(item, 1), daemon_.lookup(item, "file"),
              daemon_.create(item, "file"), daemon_.read(item, 1), daemon_.write(item, "x"),
              daemon_.open(item), daemon_.listXattrs(item)}) {
            EXPECT_EQ(answer.code(), kENOENT);
        }
        EXPECT_EQ(daemon_.reclaim(item).code(), 0);
    }
    for (const char *name : {"", "\xff\xfe"}) {
        for (const Answer &answer :
             {daemon_.lookup(root, name), daemon_.create(root, name),
              daemon_.rename(file.item(), directory.item(), "file", root, name),
              daemon_.setXattr(file.item(), name, data("x"))}) {
            EXPECT_EQ(answer.code(), kEINVAL);
        }
    }
    end({file, directory});
}

TEST_P(Binding, LosesNothingWhateverEndFSKitMakes) {
    std::vector<std::string> expected;
    const std::vector<std::function<void()>> ends{
        [&] { // umount(8), which is not followed by an unload
            EXPECT_TRUE(daemon_.unmount().ok());
            Daemon other(GetParam()); // as after the end of the process
            other.bringUp(resource(NO));
            EXPECT_EQ(other.list(other.root(), 100, true), expected);
            other.takeDown();
            EXPECT_TRUE(daemon_.deactivate().ok());
            EXPECT_EQ(daemon_.state(), FSContainerStateNotReady) << "only a load opens it again";
            EXPECT_EQ(daemon_.check(@[ @"-q" ], task()).code(), kENXIO);
        },
        [&] { EXPECT_TRUE(daemon_.deactivate().ok()); },
        [&] { // a load before the unload's reply has returned
            __block bool loaded = false;
            [daemon_.module() unloadResource:resource()
                                     options:[FSTaskOptions optionsWithWords:@[]]
                                replyHandler:^(NSError *) {
                                    EXPECT_EQ(daemon_.state(), FSContainerStateNotReady);
                                    loaded = daemon_.load(resource()).ok();
                                }];
            EXPECT_TRUE(loaded);
            EXPECT_EQ(daemon_.check(@[ @"-q" ], task()).code(), 0) << "it is loaded";
        }};
    for (const auto &meetEnd : ends) {
        daemon_.bringUp(resource());
        expected.push_back("file" + std::to_string(expected.size()));
        const Answer made = daemon_.create(daemon_.root(), expected.back());
        ASSERT_TRUE(made.ok() && daemon_.reclaim(made.item()).ok());
        meetEnd();
    }
    daemon_.bringUp(resource(), @[ @"-o", @"rdonly" ]);
    EXPECT_EQ(daemon_.list(daemon_.root(), 100, true), expected);
    EXPECT_EQ(daemon_.create(daemon_.root(), "new").code(), kEROFS);
    EXPECT_EQ(daemon_.volume().requestedMountOptions, FSMountOptionsReadOnly);
    end();
    static_cast<void>(sample_.check());
}

TEST_P(Binding, KeepsAnActiveVolumeThroughASecondLoad) {
    daemon_.bringUp(resource());
    ::TavelinServedVolume *const first = daemon_.volume();
    const Answer held = file("file", "content");
    EXPECT_EQ(daemon_.load(resource()).object.get(), first) << "for a check, say";
    EXPECT_TRUE(daemon_.unload().ok());
    __block int refusals = 0;
    [daemon_.module() loadResource:made([OtherResource new])
                           options:[FSTaskOptions optionsWithWords:@[]]
                      replyHandler:^(FSVolume *none, NSError *error) {
                          refusals += none == nil && error.code == kENODEV;
                      }];
    EXPECT_EQ(refusals, 1);
    EXPECT_EQ(daemon_.state(), FSContainerStateActive);
    EXPECT_EQ(daemon_.readText(held.item()), "content");
    EXPECT_EQ(daemon_.lookup(daemon_.root(), "file").item(), held.item());
    end({held});
}

TEST_P(Binding, FailsWhereNothingCanBeMadeAndTriesAgain) {
    [FSItem setCanBeMade:NO];
    EXPECT_EQ(daemon_.load(resource()).code(), kENOMEM);
    [FSItem setCanBeMade:YES];
    EXPECT_EQ(daemon_.module().containerStatus.status.code, kENOMEM);
    EXPECT_EQ(daemon_.check(@[ @"-q" ], task()).code(), kENXIO) << "nothing is loaded";
    daemon_.bringUp(resource());
    ASSERT_TRUE(daemon_.reclaim(file("file").item()).ok());
    [FSItem setCanBeMade:NO];
    EXPECT_EQ(daemon_.lookup(daemon_.root(), "file").code(), kENOMEM);
    [FSItem setCanBeMade:YES];
    const Answer found = daemon_.lookup(daemon_.root(), "file");
    EXPECT_TRUE(found.ok() && found.item() != nil && daemon_.reclaim(found.item()).ok());
    end();
}

TEST_P(Binding, RepliesToAReclaimWithNothingLocked) {
    daemon_.bringUp(resource());
    const Answer held = file("file");
    __block int found = 0;
    [daemon_.volume() reclaimItem:held.item()
                     replyHandler:^(NSError *) {
                         const Answer again = daemon_.lookup(daemon_.root(), "file");
                         found += again.ok() && daemon_.reclaim(again.item()).ok();
                     }];
    EXPECT_EQ(found, 1);
    end();
}

TEST_P(Binding, CompletesACheckOnceAndLater) {
    daemon_.bringUp(resource());
    RecordingTask *checking = task();
    const Answer started = daemon_.check(@[ @"-q" ], checking);
    ASSERT_TRUE(started.ok());
    NSProgress *progress = static_cast<NSProgress *>(started.object.get());
    EXPECT_EQ(progress.completedUnitCount, 0);
    EXPECT_EQ(checking->_completions, 0);
    EXPECT_EQ(replaced_->queue().run(), 1u);
    EXPECT_EQ(progress.completedUnitCount, progress.totalUnitCount);
    EXPECT_EQ(checking->_completions, 1);
    EXPECT_EQ(checking->_errorCode, 0);
    end();
}

TEST_P(Binding, GetsAcrossAMisbehavingDevice) {
    ImageResource *device = resource();
    device->_shortBytes = 4096;
    daemon_.bringUp(device);
    const std::string content = std::string(300'000, 'a') + 'z';
    const Answer held = file("file", content);
    EXPECT_EQ(daemon_.synchronize().code(), 0);
    device->_shortBytes = 0;
    EXPECT_TRUE(daemon_.readText(held.item()) == content);

    EXPECT_EQ(daemon_.write(held.item(), "lost").code(), 0);
    device->_revokedNow = true;
    EXPECT_TRUE(daemon_.reclaim(held.item()).ok());
    EXPECT_EQ(daemon_.synchronize().code(), kENXIO) << "data is lost";
    EXPECT_NE(daemon_.deactivate().code(), 0);
    EXPECT_EQ(daemon_.state(), FSContainerStateActive) << "until it is closed";
    for (const Answer &answer : daemon_.abandon()) {
        EXPECT_EQ(answer.replies, 1);
    }
    EXPECT_EQ(daemon_.state(), FSContainerStateNotReady);
    ::TavelinServedVolume *const lost = daemon_.volume();
    daemon_.bringUp(resource(NO));
    EXPECT_TRUE([lost deactivated:0]);
    EXPECT_EQ(daemon_.state(), FSContainerStateActive) << "the late end is another volume's";
    EXPECT_EQ(daemon_.volume().requestedMountOptions, FSMountOptionsReadOnly);
    end();
}

TEST_P(Binding, GivesOneObjectForAFileAndKeepsItUntilReclaimed) {
    daemon_.bringUp(resource());
    FSItem *const root = daemon_.root();
    const Answer held = daemon_.create(root, "file");
    EXPECT_EQ(daemon_.lookup(root, "file").item(), held.item());
    EXPECT_EQ(daemon_.volume().handedItemCount, 2u);

    if (daemon_.hasHandlers()) {
        static_cast<void>(OpCounter::shared().dumpAndReset());
        [FSItem setHasAnswersOnTheirWay:YES];
        EXPECT_TRUE(daemon_.reclaim(held.item()).ok());
        [FSItem setHasAnswersOnTheirWay:NO];
        EXPECT_EQ(daemon_.lookup(root, "file").item(), held.item());
        EXPECT_EQ(daemon_.readText(held.item()), "");
        const std::string counted = OpCounter::shared().dumpAndReset();
        EXPECT_NE(counted.find("lookupItem=1"), std::string::npos) << counted;
        EXPECT_NE(counted.find("reclaimItem=1"), std::string::npos) << counted;
        EXPECT_EQ(counted.find("getAttributes"), std::string::npos) << counted;
    }
    EXPECT_TRUE(daemon_.reclaim(held.item()).ok());
    EXPECT_EQ(daemon_.volume().handedItemCount, 1u);
    EXPECT_TRUE(daemon_.getAttributes(held.item()).ok()) << "a late request is answered";

    const Answer again = daemon_.lookup(root, "file");
    EXPECT_NE(again.item(), held.item());
    EXPECT_TRUE(daemon_.reclaim(held.item()).ok()) << "a second reclaim of the old one";
    EXPECT_EQ(daemon_.lookup(root, "file").item(), again.item());
    end({again});
}

TEST_P(Binding, KeepsFilesWithoutANameWhereFSKitDoesNot) {
    daemon_.bringUp(resource());
    FSItem *const root = daemon_.root();
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
    EXPECT_EQ(daemon_.read(removed.item(), 1).code(),
              daemon_.release() == Release::k15_4 ? 0 : kESTALE)
        << "FSKit keeps open ones later";
    for (const Answer *held : {&removed, &replaced, &fresh, &open}) {
        EXPECT_TRUE(daemon_.reclaim(held->item()).ok());
    }
    EXPECT_EQ(daemon_.read(replaced.item(), 1).code(), kESTALE);
    end();
}

TEST_P(Binding, TellsWithTheAnswerWhatFSKitWouldAskForNext) {
    daemon_.bringUp(resource());
    FSItem *const root = daemon_.root();
    const auto tells = [&](const Answer &answer, std::uint64_t size, unsigned links) {
        if (!daemon_.hasHandlers()) {
            return answer.itemAttributes.get() == nil;
        }
        FSItemAttributes *const told = answer.itemAttributes.get();
        EXPECT_EQ(told.size, size);
        EXPECT_EQ(told.linkCount, links);
        EXPECT_EQ(answer.freeSpace.get().bytes, daemon_.statistics());
        return true;
    };
    const Answer directory = daemon_.create(root, "folder", FSItemTypeDirectory);
    const Answer held = daemon_.create(root, "file");
    EXPECT_TRUE(tells(held, 0, 1));
    const Answer target = daemon_.create(directory.item(), "target");
    EXPECT_TRUE(tells(daemon_.write(held.item(), std::string(100'000, 'x')), 100'000, 1));
    EXPECT_TRUE(tells(daemon_.setSize(held.item(), 50'000), 50'000, 1));
    const Answer found = daemon_.lookup(root, "file");
    EXPECT_EQ(found.itemAttributes.get().size, daemon_.hasHandlers() ? 50'000u : 0);
    const Answer renamed =
        daemon_.rename(held.item(), root, "file", directory.item(), "target", target.item());
    EXPECT_TRUE(tells(renamed, 50'000, 1));
    const Answer removed = daemon_.remove(held.item(), directory.item(), "target");
    EXPECT_TRUE(tells(removed, 50'000, 0));
    if (daemon_.hasHandlers()) {
        const FSItemID folder = daemon_.getAttributes(directory.item()).attributes().fileID;
        EXPECT_EQ(held.directoryAttributes.get().fileID, FSItemIDRootDirectory);
        EXPECT_EQ(renamed.directoryAttributes.get().fileID, FSItemIDRootDirectory);
        EXPECT_EQ(renamed.destinationAttributes.get().fileID, folder);
        EXPECT_EQ(renamed.number, 0u) << "the link count of the file that was replaced";
        EXPECT_EQ(removed.directoryAttributes.get().fileID, folder);
        EXPECT_EQ(std::get<NSError *>(given(static_cast<FSActivateResult *>(nil))).code, kEIO);
    }
    end({directory, held, target});
}

TEST_P(Binding, ReservesSpaceAndTellsDataFromHoles) {
    daemon_.bringUp(resource());
    const Answer held = file("file", std::string(100'000, 'x'));
    const std::uint64_t before = daemon_.statistics();
    for (const bool isClosed : {true, false}) {
        EXPECT_EQ(daemon_.preallocate(held.item(), 1 << 20, FSPreallocateFlagsAll).number,
                  1u << 20);
        EXPECT_EQ(before - daemon_.statistics(), 1u << 20);
        const Answer unused =
            isClosed ? daemon_.close(held.item()) : daemon_.deactivateItem(held.item());
        EXPECT_TRUE(unused.ok());
        EXPECT_EQ(before, daemon_.statistics());
        EXPECT_EQ(unused.freeSpace.get() != nil, daemon_.hasHandlers() && !isClosed);
    }
    EXPECT_EQ(daemon_.preallocate(held.item(), 1 << 20, FSPreallocateFlagsContiguous).code(),
              kENOTSUP);
    ASSERT_TRUE(daemon_.setSize(held.item(), 1 << 21).ok());
    if (daemon_.hasHandlers()) {
        const Answer hole = daemon_.seek(held.item(), 5, FSSeekRegionHole);
        EXPECT_GE(hole.number, 100'000u);
        EXPECT_EQ(daemon_.seek(held.item(), 5, FSSeekRegionData).number, 5u);
        EXPECT_EQ(daemon_.seek(held.item(), hole.number, FSSeekRegionData).code(), kENXIO);
    }
    end({held});
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
    end({last});
}

std::string nameOf(const testing::TestParamInfo<Release> &release) {
    constexpr std::array kNames{"macOS15", "macOS26", "macOS27"};
    return kNames.at(static_cast<std::size_t>(release.param));
}

INSTANTIATE_TEST_SUITE_P(Releases, Binding,
                         testing::Values(Release::k15_4, Release::k26_0, Release::k27_0), nameOf);

} // namespace

} // namespace tavelin::test
