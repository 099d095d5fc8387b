// Files that lose their last name while the host still holds their items.
#include "module_fixture.hpp"

#include "fskit/orphaning_requests.hpp"

#include <algorithm>
#include <functional>
#include <iterator>
#include <sstream>

namespace tavelin {
namespace {

using namespace test;
using fskit::FSFileName;

struct Case {
    bool isReplaced;    // by a rename, else removed
    bool hostKeepsOpen; // as FSKit does from macOS 26.0 on
};

class Orphaning : public VolumeTest, public testing::WithParamInterface<Case> {
  protected:
    void SetUp() override {
        start();
        names.emplace(volume());
    }

    std::int64_t remove(const Item& item, const char* name) {
        return codeOf(names->removeItem(item, FSFileName(name), root));
    }
    std::int64_t replace(const Item& item, const char* name, const Item& over, const char* by) {
        return codeOf(names->renameItem(item, root, FSFileName(name), FSFileName(by), root, over));
    }
    // Makes "file" with some clusters and takes its name away.
    Item loseFile(bool isReplaced) {
        const Item file = *requests().create(root, "file");
        EXPECT_EQ(*requests().write(file, 0, std::string(50'000, 'f')), 50'000u);
        if (isReplaced) {
            const Item other = *requests().create(root, "other");
            EXPECT_EQ(replace(other, "other", file, "file"), 0);
            EXPECT_EQ(itemOf(names->lookupItem(FSFileName("file"), root)).get(), other);
        } else {
            EXPECT_EQ(remove(file, "file"), 0);
            EXPECT_EQ(codeOf(names->lookupItem(FSFileName("file"), root)), kENOENT);
        }
        return file;
    }
    // Lists the root in pages of so many entries, and calls `between` after each.
    std::vector<Entry> read(
        std::size_t room, bool withAttributes, const std::function<void()>& between = [] {}) {
        std::vector<Entry> all;
        const fskit::FSItemGetAttributesRequest wanted;
        fskit::FSDirectoryVerifier verifier = 0;
        for (;;) {
            Page page(room);
            const auto answer =
                names->enumerateDirectory(root, all.empty() ? 0 : all.back().next, verifier,
                                          withAttributes ? &wanted : nullptr, page);
            EXPECT_EQ(codeOf(answer), 0);
            verifier = *answer;
            if (page.entries.empty()) {
                return all;
            }
            all.insert(all.end(), page.entries.begin(), page.entries.end());
            between();
        }
    }
    std::vector<std::string> listed(const std::vector<Entry>& entries) {
        std::vector<std::string> all;
        for (const Entry& entry : entries) {
            all.push_back(entry.name);
        }
        std::erase_if(all, [](const auto& name) { return name == "." || name == ".."; });
        return all;
    }
    std::vector<std::string> listed() { return listed(read(SIZE_MAX, true)); }
    // The requests since the last call, without those to the device.
    static std::vector<std::string> counted() {
        std::istringstream words(takeCounts());
        std::vector<std::string> all{std::istream_iterator<std::string>(words), {}};
        std::erase_if(all, [](const auto& word) {
            return word.starts_with("read=") || word.starts_with("write=");
        });
        std::sort(all.begin(), all.end());
        return all;
    }
    std::uint64_t freeBytes() { return volume().volumeStatistics().freeBytes; }

    std::optional<OrphaningRequests> names;
};

TEST_P(Orphaning, AFileWithoutANameIsUsableUntilItsReclaim) {
    const auto [isReplaced, hostKeepsOpen] = GetParam();
    if (hostKeepsOpen) {
        names->leaveRemovalsToHost();
    }
    ASSERT_EQ(codeOf(names->removeItem(loseFile(false), FSFileName("x"), root)), kENOENT);
    names->reclaimed(nullptr);
    const std::uint64_t before = freeBytes();
    const Item file = loseFile(isReplaced);
    EXPECT_EQ(listed(), isReplaced ? std::vector<std::string>{"file"} : std::vector<std::string>{});
    if (!isReplaced && hostKeepsOpen) {
        EXPECT_EQ(requests().read(file, 0, 5).code(), kESTALE);
        EXPECT_EQ(freeBytes(), before);
        return;
    }
    EXPECT_EQ(*requests().read(file, 0, 5), "fffff");
    EXPECT_EQ(*requests().write(file, 50'000, "more"), 4u);
    fskit::FSItemSetAttributesRequest later;
    later.setModifyTime({.tv_sec = 1, .tv_nsec = 0});
    for (const auto& told : {names->getAttributes({}, file), names->setAttributes(later, file),
                             names->attributesBeside(file)}) {
        EXPECT_EQ(told->linkCount(), 0u);
    }
    EXPECT_LT(freeBytes(), before);

    if (hostKeepsOpen) {
        names->deactivateItem(file);
        EXPECT_GE(freeBytes() + 8192, before) << "nobody has it open";
    }
    requests().reclaim(file);
    names->reclaimed(file);
    EXPECT_EQ(requests().read(file, 0, 5).code(), kESTALE);
    EXPECT_GE(freeBytes() + 8192, before) << "the orphan directory may have grown the root";
    EXPECT_EQ(codeOf(names->synchronize(fskit::FSSyncFlags::wait)), 0);
}

INSTANTIATE_TEST_SUITE_P(AllLosses, Orphaning,
                         testing::Values(Case{false, false}, Case{true, false}, Case{false, true},
                                         Case{true, true}));

TEST_F(Orphaning, WhatIsNeverReclaimedGoesWithTheUnmountOrTheNextMount) {
    enum class End { unmount, powerCut, deviceError, readOnly };
    for (const End end : {End::unmount, End::powerCut, End::deviceError, End::readOnly}) {
        loseFile(false);
        loseFile(true);
        EXPECT_EQ(codeOf(names->lookupItem(FSFileName(".tavelin-removed"), root)), kENOENT);
        fskit::FSItemSetAttributesRequest none;
        EXPECT_EQ(
            codeOf(names->createItem(FSFileName(".tavelin-removed"), Type::directory, root, none)),
            kEPERM);
        Page page;
        static_cast<void>(requests().list(root, page));
        const auto hides = [&] { return page.names()[2].starts_with(".tavelin-removed>"); };
        EXPECT_TRUE(hides());
        EXPECT_EQ(codeOf(names->synchronize(fskit::FSSyncFlags::wait)), 0);
        const std::string cut = disk->bytes;
        if (end == End::readOnly) {
            names.reset();
            EXPECT_EQ(unload(), 0);
            ASSERT_EQ(load(), 0);
            names.emplace(volume());
            EXPECT_EQ(codeOf(names->activate({{"-o", "rdonly"}})), 0);
        } else if (end == End::deviceError) {
            disk->hook = [](MemoryResource::Call call, auto, std::size_t length) {
                return call == MemoryResource::Call::write
                           ? throw fskit::fs_errorForPOSIXError(kEIO)
                           : length;
            };
        }
        names->unmount();
        EXPECT_EQ(codeOf(names->deactivate(0)), disk->hook ? kEIO : 0);
        names.reset();
        EXPECT_EQ(unload(), disk->hook ? kEIO : 0);
        disk->hook = nullptr;
        if (end == End::powerCut) {
            disk->bytes = cut;
        }
        ASSERT_EQ(load(), 0);
        page.entries.clear();
        static_cast<void>(requests().list(volume().root(), page));
        EXPECT_EQ(hides(), end != End::unmount);
        names.emplace(volume());
        root = *Answer{names->activate({})};
        page.entries.clear();
        static_cast<void>(requests().list(root, page));
        EXPECT_FALSE(hides());
        EXPECT_EQ(listed(), std::vector<std::string>{"file"});
        EXPECT_EQ(remove(nullptr, "file"), 0);
    }
}

TEST_F(Orphaning, WithoutRoomForAnOrphanTheNameGoesAllTheSame) {
    for (int i = 0; i < OrphanDirectory::kNamesMax; ++i) {
        const std::string name(OrphanDirectory::kName);
        ASSERT_EQ(requests().create(root, i == 0 ? name : name + '-' + std::to_string(i)).code(),
                  0);
    }
    for (const bool isReplaced : {false, true}) {
        EXPECT_EQ(requests().read(loseFile(isReplaced), 0, 5).code(), kESTALE);
    }
}

TEST_F(Orphaning, AListingThatIsBeingReadShowsWhatTheNamesStandFor) {
    for (const bool withAttributes : {true, false}) {
        const Item removed = *requests().create(root, "b");
        const Item replaced = *requests().create(root, "c");
        const Item other = *requests().create(root, "d");
        EXPECT_EQ(*requests().write(other, 0, "other"), 5u);
        EXPECT_EQ(requests().create(root, "a").code(), 0);
        int pages = 0;
        const auto entries = read(withAttributes ? 1 : 3, withAttributes, [&] {
            if (pages++ == 0) {
                EXPECT_EQ(remove(removed, "b"), 0);
                EXPECT_EQ(replace(other, "d", replaced, "c"), 0);
            }
        });
        EXPECT_EQ(listed(entries), (std::vector<std::string>{"a", "c", "d"}))
            << "d was moved, not removed";
        const Entry& c = entries[entries.size() - 2];
        EXPECT_EQ(c.id, names->getAttributes({}, other)->fileID());
        EXPECT_EQ(c.attributes.has_value(), withAttributes);
        EXPECT_TRUE(!withAttributes || c.attributes->size() == 5);
        for (const char* name : {"a", "c"}) {
            EXPECT_EQ(remove(nullptr, name), 0);
        }
    }
}

TEST_F(Orphaning, AListingEndsWhereTheOrphansDirectoryIsItsLastEntry) {
    EXPECT_EQ(remove(*requests().create(root, "+removed"), "+removed"), 0);
    EXPECT_EQ(requests().create(root, "+file").code(), 0);
    for (const bool withAttributes : {true, false}) {
        const auto entries = read(withAttributes ? 1 : 3, withAttributes, [&] {
            static_cast<void>(requests().create(root, "+ before the others"));
        });
        EXPECT_EQ(listed(entries), std::vector<std::string>{"+file"});
        EXPECT_EQ(volume().keptListings(), 0u);
        EXPECT_EQ(remove(nullptr, "+ before the others"), 0);
    }
}

TEST_F(Orphaning, RequestsAreCountedAsTheyCame) {
    static_cast<void>(takeCounts());
    errorTally().reset();
    root = *Answer{names->activate({})};
    EXPECT_EQ(errorTally().summary().at("counts"), FieldValue(Fields{}));
    const Item file = *requests().create(root, "file");
    const Item other = *requests().create(root, "other");
    EXPECT_EQ(replace(other, "other", file, "file"), 0);
    EXPECT_EQ(remove(other, "file"), 0);
    names->deactivateItem(other);
    requests().reclaim(file);
    names->reclaimed(file);
    EXPECT_TRUE(names->attributesBeside(root));
    EXPECT_EQ(errorTally().summary().at("counts"), FieldValue(Fields{}));
    const FSFileName hidden(".tavelin-removed");
    EXPECT_EQ(codeOf(names->lookupItem(hidden, root)), kENOENT);
    EXPECT_EQ(codeOf(names->renameItem(other, root, FSFileName("file"), hidden, root, nullptr)),
              kEPERM);
    EXPECT_EQ(errorTally().summary().at("counts"), FieldValue(Fields{{"1", 1}, {"2", 1}}));
    errorTally().reset();
    EXPECT_EQ(counted(),
              (std::vector<std::string>{"createItem=2", "deactivateItem=1", "lookupItem=1",
                                        "reclaimItem=1", "removeItem=1", "renameItem=2"}));
    names->unmount();
    EXPECT_EQ(counted(), std::vector<std::string>{});
    EXPECT_EQ(errorTally().summary().at("counts"), FieldValue(Fields{}));
}

TEST_F(Orphaning, AChangeStandsAlthoughWhatItLeftCannotBeRead) {
    const Item file = *requests().create(root, "file");
    const fskit::FSItemAttributes unread;
    EXPECT_EQ(names->ofChanged(unread, file).linkCount(), 1u) << "it can be read now";
    EXPECT_EQ(codeOf(names->deactivate(0)), 0);
    const auto directory = names->ofDirectory(unread, root);
    EXPECT_EQ(directory.type(), Type::directory);
    EXPECT_EQ(directory.parentID(), fskit::FSItemIDParentOfRoot);
    const auto removed = names->ofRemoved(unread, file);
    EXPECT_TRUE(removed.isValid(fskit::FSItemAttribute::linkCount));
    EXPECT_EQ(removed.linkCount(), 0u);
    EXPECT_EQ(names->ofChanged(unread, file).validAttributes(), 0u) << "nobody knows its size";
}

TEST_F(Orphaning, AFileIsNoOrphanWhileItHasANameThatUsersSee) {
    const Item file = *requests().create(root, "file");
    EXPECT_EQ(codeOf(volume().linkInternal(file, FSFileName("second"), root)), 0);
    for (const char* name : {"file", "second"}) {
        const Item other = *requests().create(root, "other");
        const auto done =
            names->renameItem(other, root, FSFileName("other"), FSFileName(name), root, file);
        const std::uint32_t left = name == std::string("file") ? 1 : 0;
        EXPECT_EQ(done->overItemAttributes->linkCount(), left);
        EXPECT_EQ(names->getAttributes({}, file)->linkCount(), left);
    }

    OrphanFiles files(volume());
    const Item replaced = *requests().create(root, "replaced");
    const Item fresh = *requests().create(root, "fresh");
    const auto id = requests().attributes(replaced)->fileID();
    volume().retain(replaced);
    const ItemRef held(volume(), replaced);
    EXPECT_EQ(codeOf(files.linkBeforeReplace(held)), 0);
    EXPECT_FALSE(files.contains(id)) << "the rename may fail";
    EXPECT_EQ(requests().rename(fresh, root, "fresh", root, "replaced", replaced).code(), 0);
    EXPECT_FALSE(files.dropIfStillLinked(held, false));
    EXPECT_TRUE(files.contains(id));
    EXPECT_EQ(codeOf(files.releaseAll()), 0);
}

TEST_F(Orphaning, ASecondActivationLeavesOrphansInUse) {
    EXPECT_EQ(codeOf(names->activate({})), 0);
    const Item file = loseFile(false);
    EXPECT_EQ(codeOf(names->activate({})), 0);
    EXPECT_EQ(*requests().read(file, 0, 5), "fffff");
}

TEST_F(Orphaning, AFailedReplacementLeavesTheFileItsName) {
    const Item file = *requests().create(root, "file");
    const Item directory = *requests().create(root, "folder", Type::directory);
    EXPECT_EQ(replace(directory, "folder", file, "file"), kENOTDIR);
    EXPECT_EQ(listed(), (std::vector<std::string>{"file", "folder"}));
    EXPECT_EQ(names->getAttributes({}, file)->linkCount(), 1u);
}

} // namespace
} // namespace tavelin
