// Directories read in pages, while they change and while others read them.
#include "module_fixture.hpp"

#include "platform/error_numbers.hpp"

#include <algorithm>
#include <limits>
#include <malloc.h>

namespace tavelin {
namespace {

using namespace test;
using Names = std::vector<std::string>;

std::uint64_t recordOf(const fskit::FSItemRef& item) {
    return dynamic_cast<const NItem&>(*item).ino;
}

class Enumeration : public VolumeTest {
  protected:
    void SetUp() override { start(); }

    // The page from `cookie` on, as "name>next cookie"; keeps the verifier for the next one.
    Names list(const Item& directory, fskit::FSDirectoryCookie cookie,
               std::optional<fskit::FSDirectoryVerifier> with = {}, bool withAttributes = false,
               std::size_t room = SIZE_MAX) {
        Page page(room);
        verifier =
            *requests().list(directory, page, cookie, with.value_or(verifier), withAttributes);
        return page.names();
    }

    // Fresh files named 100, 101 and so on.
    Names fill(const Item& directory, int count) {
        Names names;
        for (int i = 100; i < 100 + count; ++i) {
            names.push_back(std::to_string(i));
            EXPECT_EQ(requests().create(directory, names.back()).code(), 0);
        }
        return names;
    }

    fskit::FSDirectoryVerifier verifier = 0;
};

// Reads a directory in pages of ten, and calls `between` with each page's names before the next.
template<typename Between>
Names readInPages(TavelinVolume& volume, const fskit::FSItemRef& directory, bool withAttributes,
                  const Between& between) {
    Names seen;
    fskit::FSDirectoryCookie cookie = 0;
    fskit::FSDirectoryVerifier verifier = 0;
    for (;;) {
        Page page(10);
        verifier = *Requests(volume).list(directory, page, cookie, verifier, withAttributes);
        if (page.entries.empty()) {
            return seen;
        }
        cookie = page.entries.back().next;
        std::erase_if(page.entries,
                      [](const Entry& each) { return each.name == "." || each.name == ".."; });
        Names names;
        for (const Entry& entry : page.entries) {
            names.push_back(entry.name);
        }
        seen.insert(seen.end(), names.begin(), names.end());
        between(names);
    }
}

TEST_F(Enumeration, AListingGoesOnWhereItWas) {
    auto ask = requests();
    const Item directory = *ask.create(root, "folder", Type::directory);
    const std::string end = ">" + std::to_string(INT64_MAX);
    EXPECT_EQ(list(directory, 0), (Names{".>1", ".." + end}));
    EXPECT_NE(verifier, fskit::FSDirectoryVerifierInitial);
    for (const char* name : {"a", "b", "c", "d"}) {
        EXPECT_EQ(ask.create(directory, name).code(), 0);
    }
    EXPECT_EQ(list(directory, 0, {}, false, 1), Names{".>1"});
    EXPECT_EQ(list(directory, 1, {}, false, 2), (Names{"..>2", "a>3"}));
    EXPECT_EQ(list(directory, 2, {}, false, 1), Names{"a>3"});
    EXPECT_EQ(list(directory, 3), (Names{"b>4", "c>5", "d" + end}));
    EXPECT_EQ(list(directory, 0, {}, true, 2), (Names{"a>1", "b>2"}));
    EXPECT_EQ(list(directory, 2, {}, true), (Names{"c>3", "d" + end}));
    for (const bool withAttributes : {false, true}) {
        EXPECT_EQ(list(directory, INT64_MAX, {}, withAttributes), Names{});
        EXPECT_EQ(list(directory, UINT64_MAX, {}, withAttributes), Names{});
    }

    list(directory, 0, {}, false, 1);
    volume().ntfs->remove("a", recordOf(directory));
    EXPECT_EQ(list(directory, 3), (Names{"b>4", "c>5", "d" + end})) << "from what was listed";
    EXPECT_EQ(list(directory, 3, verifier + 1), (Names{"c>4", "d" + end})) << "a listing unknown";

    const Item other = *ask.create(root, "other", Type::directory);
    list(directory, 0, {}, false, 1);
    EXPECT_EQ(list(other, 1), Names{".." + end}) << "the listing is another directory's";
}

TEST_F(Enumeration, AListingIsKeptForAsLongAsItIsRead) {
    auto ask = requests();
    const Item directory = *ask.create(root, "folder", Type::directory);
    fill(directory, 30);
    list(directory, 0);
    EXPECT_EQ(volume().keptListings(), 0u) << "all of it in one page";
    for (const bool withAttributes : {false, true}) {
        readInPages(volume(), directory, withAttributes, [](const Names&) {});
        EXPECT_EQ(volume().keptListings(), 0u) << "read to its end";
    }
    readInPages(volume(), directory, true, [&](const Names& names) {
        if (names.back() == "109") { // all that follows goes
            for (int i = 110; i < 130; ++i) {
                EXPECT_EQ(ask.remove(nullptr, directory, std::to_string(i)), 0);
            }
        }
    });
    EXPECT_EQ(volume().keptListings(), 0u);

    list(directory, 0, {}, false, 1);
    list(directory, 0, {}, true, 1);
    EXPECT_EQ(volume().keptListings(), 2u) << "two readers stopped half-way";
    ask.reclaim(directory);
    EXPECT_EQ(volume().keptListings(), 0u);

    const Item again = *ask.lookup(root, "folder");
    for (std::size_t i = 0; i < 2 * KeptListings::kListingsMax; ++i) {
        list(again, 0, {}, false, 1);
    }
    ask.reclaim(directory); // which `again` has replaced
    EXPECT_EQ(volume().keptListings(), KeptListings::kListingsMax) << "who stops often";
    EXPECT_EQ(list(again, 3).size(), 9u) << "the last is still there";
    volume().reclaimAll();
    EXPECT_EQ(volume().keptListings(), 0u);
    list(again, 0, {}, false, 1);
    EXPECT_EQ(volume().keptListings(), 1u);
    EXPECT_EQ(ask.deactivate(), 0);
    EXPECT_EQ(volume().keptListings(), 0u) << "nobody can read on";
}

TEST(KeptListingsTest, AreBoundByTheMemoryThatTheyTake) {
    for (const std::size_t nameLength : {5u, 255u}) {
        KeptListings kept;
        std::size_t count = 0;
        std::size_t largest = 0;
        for (; count < 40; ++count) {
            NTFSListing listing;
            for (std::uint64_t ino = 0; ino < 2'000; ++ino) {
                listing.append(std::string(nameLength, 'n'), ino, 1, NTFSItemType::file);
            }
            listing.finish();
            largest = std::max(largest, listing.memoryBytes());
            EXPECT_GE(largest, 2'000 * (sizeof(NTFSDirEntry) + nameLength));
            const std::uint64_t verifier = kept.nextVerifier();
            static_cast<void>(kept.keep(
                count, std::make_shared<Driver2::DirectorySnapshot>(std::move(listing), verifier)));
            EXPECT_LE(kept.bytes(), KeptListings::kBytesMax);
            EXPECT_NE(kept.find(count, verifier), nullptr) << "always the last";
        }
        EXPECT_EQ(kept.count(), std::min(count, KeptListings::kBytesMax / largest));
    }
}

TEST_F(Enumeration, TakesNoMemoryOnceItIsOver) {
    constexpr std::size_t kEntries = 2'000;
    constexpr std::size_t kEntryBytesMax = 200;
    const Item directory = *requests().create(root, "folder", Type::directory);
    volume().ntfs->populateCache();
    for (std::size_t i = 0; i < kEntries; ++i) {
        volume().ntfs->create(std::to_string(1000 + i), recordOf(directory), NTFSItemType::file);
    }
    static_cast<void>(readInPages(volume(), directory, true, [](const Names&) {}));
    const auto inUse = [] { return ::mallinfo2().uordblks; };
    const std::size_t before = inUse();
    list(directory, 0, {}, true, 1);
    EXPECT_EQ(volume().keptListings(), 1u);
    EXPECT_LE(inUse(), before + kEntries * kEntryBytesMax);
    list(directory, std::numeric_limits<std::int64_t>::max(), {}, true); // as told with the last
    EXPECT_EQ(volume().keptListings(), 0u);
    EXPECT_LE(inUse(), before + kEntryBytesMax) << "the listing is over";
}

TEST_F(Enumeration, NoNameIsSkippedOrRepeatedWhateverChangesBetweenPages) {
    auto ask = requests();
    for (const bool withAttributes : {false, true}) {
        const Item directory =
            *ask.create(root, withAttributes ? "described" : "plain", Type::directory);
        const Names expected = fill(directory, 30);
        int round = 0;
        const auto change = [&](const Names& names) {
            for (const std::string& name : names) {
                EXPECT_EQ(ask.remove(nullptr, directory, name), 0);
            }
            // A name in front of all, and a reader who begins anew and stops half-way.
            EXPECT_EQ(ask.create(directory, "0" + std::to_string(round++)).code(), 0);
            Page other(1);
            EXPECT_EQ(ask.list(directory, other, 0, 0, withAttributes).code(), 0);
        };
        EXPECT_EQ(readInPages(volume(), directory, withAttributes, change), expected);
    }
}

TEST_F(Enumeration, ReadersOfOneDirectoryDoNotMakeEachOtherListItAgain) {
    auto ask = requests();
    const Item directory = *ask.create(root, "folder", Type::directory);
    fill(directory, 60);
    const auto touched = [&] {
        const NTFSIOStats used = volume().ioStatistics().get();
        return used.cacheHits + used.cacheMisses;
    };
    const Names all = readInPages(volume(), directory, false, [&](const Names&) {
        EXPECT_EQ(ask.create(root, std::to_string(touched())).code(), 0);
        std::uint64_t before = 0;
        readInPages(volume(), directory, false, [&](const Names&) {
            // Only a reader's first page looks into the directory.
            EXPECT_TRUE(before == 0 || touched() == before);
            before = touched();
        });
    });
    EXPECT_EQ(all.size(), 60u);
}

TEST_F(Enumeration, AnEntryMovedWhileItsOldDirectoryIsListedKeepsItsNewParent) {
    auto ask = requests();
    const Item from = *ask.create(root, "from", Type::directory);
    const Item to = *ask.create(root, "to", Type::directory);
    const Item first = *ask.create(from, "a");
    const Item moved = *ask.create(from, "b");
    Page page(1);
    verifier = *ask.list(from, page, 0, 0, true);
    EXPECT_EQ(ask.rename(moved, from, "b", to, "b").code(), 0);
    Page next;
    EXPECT_EQ(ask.list(from, next, page.entries.back().next, verifier, true).code(), 0);
    ASSERT_EQ(next.entries.size(), 1u);
    EXPECT_EQ(next.entries[0].attributes->parentID(), recordOf(to));
    EXPECT_TRUE(volume().attributesOfEntry(next.entries[0].id, from));
    EXPECT_EQ(requests().attributes(moved)->parentID(), recordOf(to));
}

TEST_F(Enumeration, ListedAttributesAreThoseOfTheItems) {
    auto ask = requests();
    const Item directory = *ask.create(root, "folder", Type::directory);
    const Item file = *ask.create(directory, "file");
    EXPECT_EQ(*ask.write(file, 0, "four"), 4u);
    EXPECT_EQ(ask.symlink(directory, "link", "file").code(), 0);
    Page page;
    EXPECT_EQ(ask.list(directory, page, 0, 0, true).code(), 0);
    ASSERT_EQ(page.entries.size(), 2u);
    EXPECT_EQ(page.entries[0].attributes->size(), 4u);
    EXPECT_EQ(page.entries[0].attributes->parentID(), recordOf(directory));
    EXPECT_EQ(page.entries[0].id, recordOf(file));
    EXPECT_EQ(page.entries[1].type, Type::symlink);
    EXPECT_EQ(page.entries[1].attributes->type(), Type::symlink);

    // What was removed since the listing was taken is left out.
    Page first(1);
    verifier = *ask.list(directory, first, 0, 0, true);
    EXPECT_EQ(ask.remove(nullptr, directory, "link"), 0);
    Page second;
    EXPECT_EQ(ask.list(directory, second, 1, verifier, true).code(), 0);
    EXPECT_EQ(second.names(), Names{});
}

} // namespace
} // namespace tavelin
