// Items: attributes, the registry, names that change, extended attributes.
#include "module_fixture.hpp"

#include "platform/error_numbers.hpp"

#include <map>
#include <unistd.h>

namespace tavelin {
namespace {

using namespace test;
namespace Bit = fskit::FSItemAttribute;
using Names = std::vector<std::string>;
using fskit::FSItemSetAttributesRequest;

std::uint64_t inodeOf(const fskit::FSItemRef& item) {
    return dynamic_cast<const NItem&>(*item).ino;
}

std::uint64_t referenceOf(const fskit::FSItemRef& item) {
    return dynamic_cast<const NItem&>(*item).reference;
}

bool same(const std::timespec& a, const std::timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

class Items : public VolumeTest {
  protected:
    void SetUp() override { start(); }

    fskit::FSItemAttributes attributesOf(const Item& item) { return *requests().attributes(item); }

    // Sends every request that needs the item; "source" is in the root.
    void expectAllAnswer(std::int64_t expected, const Item& item) {
        auto ask = requests();
        FSItemSetAttributesRequest shorter;
        shorter.setSize(0);
        Page page;
        for (const std::int64_t code :
             {ask.lookup(item, "a").code(), ask.create(item, "a").code(),
              ask.symlink(item, "a", "b").code(), ask.readlink(item).code(),
              ask.remove(nullptr, item, "a"), ask.rename(nullptr, item, "a", root, "b").code(),
              ask.rename(nullptr, root, "source", item, "b").code(), ask.attributes(item).code(),
              ask.setAttributes(item, shorter).code(), ask.list(item, page).code(),
              ask.read(item, 0, 9).code(), ask.write(item, 0, "old").code(),
              ask.xattr(item, "a").code(), ask.setXattr(item, "a", "v"), ask.xattrs(item).code()}) {
            EXPECT_EQ(code, expected);
        }
    }
};

TEST_F(Items, MissingItemsAreAnsweredENOENTAndNotTallied) {
    auto ask = requests();
    const Item none;
    EXPECT_EQ(ask.create(root, "source").code(), 0);
    static_cast<void>(takeCounts());
    expectAllAnswer(kENOENT, none);
    EXPECT_EQ(ask.open(none), kENOENT);
    ask.close(none);
    ask.reclaim(none);
    EXPECT_EQ(errorTally().summary().at("counts"), FieldValue(Fields{}));
    const std::string counts = ' ' + takeCounts();
    for (const char* key : {"lookupItem", "createItem", "createSymbolicLink", "readSymbolicLink",
                            "removeItem", "getAttributes", "setAttributes", "getXattr", "setXattr",
                            "listXattrs", "openItem", "closeItem", "reclaimItem"}) {
        EXPECT_NE(counts.find(' ' + std::string(key) + "=1"), std::string::npos) << counts;
    }
    EXPECT_NE(counts.find("enumerateDirectory=1"), std::string::npos) << counts;
    EXPECT_EQ(counts.find("write"), std::string::npos) << "reads and writes are not counted";
}

TEST_F(Items, FailuresAreTalliedUnderTheRequestsBareName) {
    auto ask = requests();
    const Item file = *ask.create(root, "file");
    Page page;
    EXPECT_EQ(ask.lookup(root, "").code(), kEINVAL);
    EXPECT_EQ(ask.lookup(root, "\xff").code(), kEINVAL);
    EXPECT_EQ(ask.lookup(file, "x").code(), kENOTDIR);
    EXPECT_EQ(ask.create(root, "file").code(), kEEXIST);
    EXPECT_EQ(ask.symlink(root, "link", "").code(), kEINVAL);
    EXPECT_EQ(ask.readlink(file).code(), kEINVAL);
    EXPECT_EQ(ask.remove(nullptr, root, "absent"), kENOENT);
    EXPECT_EQ(ask.rename(nullptr, root, "file", root, "").code(), kEINVAL);
    EXPECT_EQ(ask.list(file, page, 0, 9).code(), kENOTDIR);
    EXPECT_EQ(ask.read(root, 0, 1).code(), kEISDIR);
    EXPECT_EQ(ask.write(root, 0, "x").code(), kEISDIR);
    EXPECT_EQ(ask.xattr(file, "none").code(), kENOATTR);
    EXPECT_EQ(ask.setName(std::string(200, 'n')), kENAMETOOLONG);
    EXPECT_EQ(volume().name().data(), "Sample");
    for (const auto type : {Type::fifo, Type::symlink, Type::unknown}) {
        EXPECT_EQ(ask.create(root, "odd", type).code(), kENOTSUP);
    }
    EXPECT_EQ(ask.link(file, root, "hard").code(), kENOTSUP);
    const auto summary = errorTally().summary();
    EXPECT_EQ(
        summary.at("first"),
        FieldValue(Names{"lookupItem:22", "lookupItem:22", "lookupItem:20", "createSymbolicLink:22",
                         "readSymbolicLink:22", "renameItem:22", "enumerateDirectory:20", "read:21",
                         "write:21", "setVolumeName:63"}));
    EXPECT_EQ(summary.at("counts"),
              FieldValue(Fields{
                  {"2", 1}, {"17", 1}, {"20", 2}, {"21", 2}, {"22", 5}, {"63", 1}, {"93", 1}}));
}

TEST_F(Items, AttributesAreFilledWhateverIsAsked) {
    auto ask = requests();
    const Item directory = *ask.create(root, "folder", Type::directory);
    const Item file = *ask.create(directory, "file");
    EXPECT_EQ(*ask.write(file, 0, std::string(5000, 'x')), 5000u);
    const auto found = attributesOf(file);
    EXPECT_EQ(found.validAttributes(), (1u << 17) - 1);
    EXPECT_EQ(found.type(), Type::file);
    EXPECT_EQ(found.mode(), 0100666u);
    EXPECT_EQ(found.uid(), ::getuid());
    EXPECT_EQ(found.linkCount(), 1u);
    EXPECT_EQ(found.size(), 5000u);
    EXPECT_EQ(found.allocSize(), 8192u);
    EXPECT_EQ(found.fileID(), inodeOf(file));
    EXPECT_EQ(found.parentID(), inodeOf(directory));
    EXPECT_TRUE(same(found.addedTime(), found.birthTime()));
    EXPECT_TRUE(same(found.backupTime(), {}));
    EXPECT_EQ(attributesOf(directory).parentID(), fskit::FSItemIDRootDirectory);
    EXPECT_EQ(attributesOf(root).fileID(), fskit::FSItemIDRootDirectory);
    EXPECT_EQ(attributesOf(root).parentID(), fskit::FSItemIDParentOfRoot);
    EXPECT_EQ(attributesOf(root).mode(), 040777u);
    EXPECT_EQ(attributesOf(*ask.symlink(root, "link", "t")).type(), Type::symlink);
    EXPECT_EQ(*ask.read(file, 5000, 10), "");
    EXPECT_EQ(*ask.read(file, 4990, 100, 4), "xxxx") << "no more than the buffer holds";
}

TEST_F(Items, ChangesAreConsumedOneByOneAndStopAtTheFirstFailure) {
    auto ask = requests();
    const Item file = *ask.create(root, "file");
    FSItemSetAttributesRequest all;
    all.setSize(7);
    all.setAccessTime({1000, 100});
    all.setBirthTime({2000, 200});
    all.setFlags(0x8000);
    all.setMode(0400);
    all.setUid(12345);
    all.setGid(12345);
    all.setBackupTime({3000, 0});
    const auto before = attributesOf(file);
    const auto after = *ask.setAttributes(file, all);
    EXPECT_EQ(all.consumedAttributes, Bit::size | Bit::accessTime | Bit::birthTime | Bit::flags |
                                          Bit::mode | Bit::uid | Bit::gid);
    EXPECT_EQ(after.size(), 7u);
    EXPECT_TRUE(same(after.accessTime(), {1000, 100}));
    EXPECT_TRUE(same(after.birthTime(), {2000, 200}));
    EXPECT_EQ(after.flags(), 0x8000u);
    EXPECT_EQ(after.mode(), before.mode());
    EXPECT_EQ(after.uid(), before.uid());
    EXPECT_EQ(after.type(), Type::file);

    FSItemSetAttributesRequest visible;
    visible.setFlags(0);
    EXPECT_EQ(ask.setAttributes(file, visible)->flags(), 0u);

    FSItemSetAttributesRequest tooLarge;
    tooLarge.setSize(UINT64_MAX);
    tooLarge.setModifyTime({1, 0});
    tooLarge.setMode(0);
    EXPECT_EQ(ask.setAttributes(file, tooLarge).code(), kEFBIG);
    EXPECT_EQ(tooLarge.consumedAttributes, 0u);
    EXPECT_FALSE(same(attributesOf(file).modifyTime(), {1, 0}));

    FSItemSetAttributesRequest onCreation = tooLarge;
    onCreation.consumedAttributes = Bit::type;
    EXPECT_EQ(ask.create(root, "large", Type::file, onCreation).code(), 0);
    EXPECT_EQ(onCreation.consumedAttributes, 0u);
    FSItemSetAttributesRequest directoryMode;
    directoryMode.setMode(0700);
    const Item directory = *ask.create(root, "folder", Type::directory, directoryMode);
    EXPECT_EQ(directoryMode.consumedAttributes, Bit::mode);
    EXPECT_EQ(attributesOf(directory).mode(), 040777u);
}

TEST_F(Items, OneItemForEachInodeUntilItsLastHandOutIsGivenBack) {
    auto ask = requests();
    const Item directory = *ask.create(root, "folder", Type::directory);
    const std::size_t before = volume().liveItems();
    const Item file = *ask.create(root, "file");
    EXPECT_EQ(*ask.lookup(root, "file"), file);
    EXPECT_EQ(volume().item(referenceOf(file), inodeOf(directory)), file);
    EXPECT_EQ(attributesOf(file).parentID(), inodeOf(directory))
        << "the directory last come through";
    Page page;
    EXPECT_EQ(ask.list(root, page, 0, 0, true).code(), 0);
    EXPECT_EQ(volume().liveItems(), before + 1) << "what a listing shows is not handed out";
    volume().retain(file);
    volume().release(file);
    volume().release(file);
    EXPECT_EQ(*ask.lookup(root, "file"), file) << "one hand-out was left";
    volume().release(file);
    volume().release(file);
    EXPECT_EQ(volume().liveItems(), before);

    const Item again = *ask.lookup(root, "file");
    EXPECT_NE(again, file);
    ask.reclaim(file);
    EXPECT_EQ(*ask.lookup(root, "file"), again) << "the newer item stays";
    EXPECT_EQ(ask.remove(again, root, "file"), 0);
    EXPECT_EQ(volume().item(referenceOf(again), NTFSVolume::kRootIno), again)
        << "removal leaves it registered";
    ask.reclaim(root);
    EXPECT_EQ(volume().item(NTFSVolume::kRootIno, NTFSVolume::kRootIno), root);
    volume().reclaimAll();
    EXPECT_EQ(volume().liveItems(), 1u) << "the root stays";
    volume().release(again);
    EXPECT_EQ(volume().liveItems(), 1u);
}

TEST_F(Items, ChangesAnswerWhatTheyLeave) {
    auto ask = requests();
    TavelinVolume& v = volume();
    FSItemSetAttributesRequest none;
    const auto named = [](const char* text) { return fskit::FSFileName(text); };
    const auto isNow = [&](const Item& item, const fskit::FSItemAttributes& told) {
        const auto now = attributesOf(item);
        return told.validAttributes() == now.validAttributes() && told.fileID() == now.fileID() &&
               told.parentID() == now.parentID() && told.size() == now.size() &&
               told.linkCount() == now.linkCount() && same(told.modifyTime(), now.modifyTime());
    };
    const auto freeNow = [&] { return v.volumeStatistics().freeBytes; };
    const Item directory = *ask.create(root, "folder", Type::directory);

    const auto made = v.createItem(named("a"), Type::file, directory, none).get();
    EXPECT_TRUE(isNow(made.newItem, made.newItemAttributes));
    EXPECT_TRUE(isNow(directory, made.directoryAttributes));
    EXPECT_EQ(made.directoryAttributes.parentID(), fskit::FSItemIDRootDirectory);
    EXPECT_EQ(made.freeSpace, freeNow());

    const auto before = freeNow();
    const fskit::FSItemGetAttributesRequest all{~0ull};
    const auto written = v.write(bytesOf(std::string(50000, 'x')), made.newItem, 0, &all).get();
    EXPECT_EQ(written.bytesWritten, 50000u);
    EXPECT_TRUE(isNow(made.newItem, written.itemAttributes));
    EXPECT_EQ(written.freeSpace, freeNow());
    EXPECT_EQ(written.freeSpace, before - written.itemAttributes.allocSize());

    const auto nothing = v.write({}, made.newItem, 0, &all).get();
    EXPECT_TRUE(isNow(made.newItem, nothing.itemAttributes));
    EXPECT_EQ(nothing.freeSpace, freeNow());
    const auto presumed = v.presumed(directory, Type::directory);
    EXPECT_EQ(presumed.validAttributes(), made.directoryAttributes.validAttributes());
    EXPECT_EQ(presumed.fileID(), made.directoryAttributes.fileID());
    EXPECT_EQ(presumed.mode(), made.directoryAttributes.mode());

    const auto linked = v.linkInternal(made.newItem, named("second"), root).get();
    EXPECT_EQ(linked.linkAttributes.linkCount(), 2u);
    EXPECT_TRUE(isNow(root, linked.directoryAttributes));

    const Item over = *ask.create(root, "b");
    auto renamed = v.renameItem(made.newItem, directory, named("a"), named("b"), root, over).get();
    EXPECT_TRUE(isNow(made.newItem, renamed.renamedItemAttributes));
    EXPECT_EQ(renamed.renamedItemAttributes.parentID(), fskit::FSItemIDRootDirectory);
    EXPECT_EQ(*ask.lookup(root, "b"), made.newItem);
    EXPECT_EQ(ask.attributes(over).code(), kESTALE);
    EXPECT_TRUE(isNow(directory, renamed.sourceDirectoryAttributes));
    EXPECT_TRUE(isNow(root, renamed.destinationDirectoryAttributes));
    EXPECT_EQ(renamed.overItemAttributes->fileID(), inodeOf(over));
    EXPECT_EQ(renamed.overItemAttributes->linkCount(), 0u);
    for (const Item& from : {Item(root), directory}) { // then to where it is already
        const auto old = named(from == root ? "b" : "c");
        renamed = v.renameItem(made.newItem, from, old, named("c"), directory, nullptr).get();
        EXPECT_FALSE(renamed.overItemAttributes);
    }

    auto removed = v.removeItem(made.newItem, named("second"), root).get();
    EXPECT_EQ(removed.itemAttributes.linkCount(), 1u) << "it has another name";
    EXPECT_TRUE(isNow(root, removed.directoryAttributes));
    removed = v.removeItem(made.newItem, named("c"), directory).get();
    EXPECT_EQ(removed.itemAttributes.linkCount(), 0u);
    EXPECT_EQ(removed.itemAttributes.size(), 50000u) << "as it was";
    EXPECT_EQ(removed.freeSpace, freeNow());
    EXPECT_GT(removed.freeSpace, written.freeSpace);
}

TEST_F(Items, AnItemWhoseFileIsGoneNeverStandsForTheNextFileInItsRecord) {
    auto ask = requests();
    const Item removed = *ask.create(root, "removed");
    const Item replaced = *ask.create(root, "replaced");
    const Item directory = *ask.create(root, "folder", Type::directory);
    const std::vector<Item> gone{removed, replaced, directory};
    EXPECT_EQ(ask.rename(nullptr, root, "removed", root, "replaced", replaced).code(), 0);
    EXPECT_EQ(ask.remove(removed, root, "replaced"), 0);
    EXPECT_EQ(ask.remove(directory, root, "folder"), 0);
    EXPECT_EQ(ask.create(root, "source").code(), 0);
    std::map<std::uint64_t, Item> newcomers; // by record
    for (int i = 0; i < 50; ++i) {
        const Item fresh = *ask.create(root, "new " + std::to_string(i));
        EXPECT_EQ(*ask.write(fresh, 0, "new bytes"), 9u);
        newcomers.emplace(inodeOf(fresh), fresh);
    }
    for (const Item& item : gone) {
        ASSERT_TRUE(newcomers.contains(inodeOf(item))) << "no record was used again";
        expectAllAnswer(kESTALE, item);
        const Item newcomer = newcomers.at(inodeOf(item));
        EXPECT_NE(newcomer, item);
        EXPECT_EQ(*ask.read(newcomer, 0, 100), "new bytes");
        ask.reclaim(item);
        EXPECT_EQ(volume().item(referenceOf(newcomer), NTFSVolume::kRootIno), newcomer);
    }
}

TEST_F(Items, ExtendedAttributesMayBeSetWithoutAValueOrAPolicyThatIsKnown) {
    using Policy = fskit::FSSetXattrPolicy;
    auto ask = requests();
    const Item file = *ask.create(root, "file");
    EXPECT_EQ(ask.setXattr(file, "note", "3", static_cast<Policy>(9)), 0);
    EXPECT_EQ(textOf(*ask.xattr(file, "note")), "3");
    EXPECT_EQ(ask.setXattr(file, "note", "4", Policy::mustCreate), kEEXIST);
    EXPECT_EQ(ask.setXattr(file, "note", {}), 0);
    EXPECT_EQ((*ask.xattr(file, "note")).size(), 0u);
    EXPECT_EQ((*ask.xattrs(file)), std::vector{fskit::FSFileName("note")});
}

TEST_F(Items, CountsAreDumpedWhenTheVolumeIsLeft) {
    auto ask = requests();
    static_cast<void>(takeLog());
    static_cast<void>(takeCounts());
    static_cast<void>(ask.lookup(root, "absent"));
    EXPECT_EQ(ask.synchronize(static_cast<fskit::FSSyncFlags>(6)), 0);
    services.log().setInfoEnabled(false);
    ask.unmount();
    services.log().setInfoEnabled(true);
    static_cast<void>(ask.lookup(root, "absent"));
    ask.unmount();
    const std::string line = takeLog().back();
    EXPECT_EQ(line.find("info fs: ops: lookupItem=2"), 0u) << line << ": unseen counts are kept";
    EXPECT_NE(line.find("synchronize-6=1"), std::string::npos) << line;
    static_cast<void>(ask.lookup(root, "absent"));
    services.log().setInfoEnabled(false);
    EXPECT_EQ(ask.deactivate(), 0);
    EXPECT_EQ(takeLastEvent(), R"({"errors":{"counts":{"2":3},"first":[]},"ev":"deactivate",)"
                               R"("ops":"lookupItem=1"})");
    EXPECT_EQ(takeLog().size(), 0u);
}

TEST_F(Items, StatisticsAddUpAndSurviveAVolumeThatIsGone) {
    const auto space = volume().volumeStatistics();
    EXPECT_EQ(space.fileSystemTypeName, "tavelin");
    EXPECT_EQ(space.blockSize, 4096);
    EXPECT_EQ(space.ioSize, 1 << 20);
    EXPECT_EQ(space.totalBytes, space.totalBlocks * 4096);
    EXPECT_EQ(space.usedBytes + space.freeBytes, space.totalBytes);
    EXPECT_EQ(space.usedBlocks + space.availableBlocks, space.totalBlocks);
    EXPECT_GT(space.totalFiles, space.freeFiles);
    const auto gone = module.volume;
    EXPECT_EQ(unload(), 0);
    EXPECT_EQ(gone->volumeStatistics().totalBytes, 0u);
    EXPECT_EQ(gone->volumeStatistics().fileSystemTypeName, "tavelin");
    EXPECT_EQ(Requests(*gone).attributes(root).code(), kENXIO);
}

} // namespace
} // namespace tavelin
