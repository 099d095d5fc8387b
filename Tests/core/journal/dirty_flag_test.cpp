// The dirty flag of the volume: set while home locations may hold half a flush, then as it was.
#include "core/journal/journal_disk.hpp"
#include "support/replaced_services.hpp"

#include <fmt/format.h>

#include <algorithm>

namespace tavelin::test {
namespace {

std::shared_ptr<Disk> foundAs(bool dirty, const Bytes& image) {
    const auto disk = diskWith(image);
    if (dirty) {
        setDirty(disk);
        disk->events.clear();
    }
    return disk;
}

// What is at home in the pages that the flushes change.
Bytes homeOf(const Bytes& image) {
    const auto begin = image.begin() + static_cast<std::ptrdiff_t>(volume().work * kPage);
    return {begin, begin + 6 * kPage};
}

// At every write of two busy periods with an idle one in between, and of the unmount.
TEST(DirtyFlag, IsSetWhileAFlushIsOnItsWayAndThenAsItWas) {
    for (const bool found : {false, true}) {
        const auto disk = foundAs(found, volume().image);
        const Bytes base = disk->bytes;
        const auto device = mounted(disk);
        std::vector<Bytes> whole{homeOf(base)}; // after each flush
        std::vector<std::size_t> promisedAt{0}; // events
        for (const std::uint64_t number : {1, 2}) {
            for (const std::uint64_t page : {1, 2, 3}) {
                writePages(*device, number, page, 2);
                ASSERT_EQ(device->sync(), 0);
                EXPECT_TRUE(isDirty(disk));
                whole.push_back(homeOf(disk->bytes));
                promisedAt.push_back(disk->events.size());
            }
            ASSERT_EQ(device->settle(), 0);
            EXPECT_EQ(isDirty(disk), found) << number;
            EXPECT_TRUE(disk->events.back().flush);
        }
        ASSERT_EQ(device->close(), 0);
        // Whatever is home, it is whole or the flag is there; and the next mount knows how the flag
        // was found.
        std::mt19937_64 random(1);
        for (std::size_t end = 0; end <= disk->events.size(); ++end) {
            for (const Cut cut : manyCuts()) {
                const auto after = diskWith(afterCut(base, disk->events, end, cut, random));
                SCOPED_TRACE(fmt::format("found {}, cut {} after event {} of {}", found,
                                         static_cast<int>(cut), end, disk->events.size()));
                EXPECT_TRUE(isDirty(after) ||
                            std::ranges::find(whole, homeOf(after->bytes)) != whole.end());
                EXPECT_TRUE(cut == Cut::torn || isLogBlank(*after) ||
                            JournalRecord::hasMagic(&logByte(*after, kRecords)))
                    << "records without their header";
                JournaledDevice view(after);
                ASSERT_EQ(view.replay(true), 0);
                Bytes seen(after->bytes.size());
                ASSERT_EQ(view.read(seen.data(), 0, seen.size()), 0);
                EXPECT_EQ(isDirty(diskWith(seen)), found) << "by a view of it";
                JournaledDevice next(after);
                ASSERT_EQ(next.replay(false), 0);
                EXPECT_FALSE(next.wasRefused());
                EXPECT_EQ(isDirty(after), found);
                const auto kept = std::ranges::upper_bound(promisedAt, end) - promisedAt.begin();
                EXPECT_NE(std::find(whole.begin() + kept - 1, whole.end(), homeOf(after->bytes)),
                          whole.end());
            }
        }
    }
}

// More than one record carries: after a cut between its parts nothing says that all is well.
TEST(DirtyFlag, StaysWhereACutLeavesASyncInParts) {
    const auto disk = diskWith(volume().image);
    const Bytes base = disk->bytes;
    const auto device = mounted(disk);
    const std::uint64_t pages = device->backlog().capacity + 5;
    const auto home = [&](const Bytes& image) {
        const auto begin = image.begin() + static_cast<std::ptrdiff_t>(volume().work * kPage);
        return Bytes(begin, begin + static_cast<std::ptrdiff_t>(pages * kPage));
    };
    writePages(*device, 7, 0, pages);
    ASSERT_EQ(device->sync(), 0);
    ASSERT_EQ(device->settle(), 0);
    EXPECT_FALSE(isDirty(disk));
    const Bytes old = home(base), whole = home(disk->bytes);
    bool isPartSeen = false;
    std::mt19937_64 random(1);
    for (std::size_t end = 0; end <= disk->events.size(); ++end) {
        for (const Cut cut : manyCuts()) {
            const auto after = diskWith(afterCut(base, disk->events, end, cut, random));
            for (const char* mount : {"the next mount", "the one after it"}) {
                JournaledDevice next(after);
                ASSERT_EQ(next.replay(false), 0);
                EXPECT_FALSE(next.wasRefused());
                const Bytes found = home(after->bytes);
                const bool isPart = found != old && found != whole;
                EXPECT_TRUE(!isPart || isDirty(after))
                    << "cut after event " << end << ", " << mount;
                isPartSeen = isPartSeen || isPart;
            }
        }
    }
    EXPECT_TRUE(isPartSeen);
}

// The rest of such a sync may come to nothing, and then all that there is of it is home.
TEST(DirtyFlag, GoesWhereTheSecondPartFailed) {
    const auto disk = diskWith(volume().image);
    const auto device = mounted(disk);
    const std::uint64_t pages = device->backlog().capacity;
    writePages(*device, 7, 0, pages);
    const std::uint64_t next = (volume().work + pages) * kPage;
    disk->lost.insert(next / kSector); // so the rest of its page cannot be read
    const std::byte one{1};
    EXPECT_EQ(device->write(&one, next, 1), EIO);
    EXPECT_TRUE(isDirty(disk));
    EXPECT_EQ(device->sync(), 0);
    EXPECT_EQ(device->settle(), 0);
    EXPECT_FALSE(isDirty(disk));
}

// A neighbour that marks the volume too changes more of the record than the flag. In every lap of
// the journal that must be seen, or the replay clears what it set.
TEST(DirtyFlag, StaysWhereANeighbourWroteItsRecord) {
    const auto disk = diskWith(volume().image);
    const auto device = mounted(disk);
    ntb_extent records[2];
    {
        DeviceBox box(disk);
        const ntb_io io = makeIO(box);
        ASSERT_EQ(ntb_volume_records(&io, records), 0);
    }
    for (const std::uint64_t flush : {1, 2, 3, 4}) { // two of them are more than a lap
        writePages(*device, flush, 0, device->backlog().capacity / 2 + 1);
        ASSERT_EQ(device->sync(), 0);
        const auto after = diskWith(disk->bytes);
        constexpr std::uint64_t sequenceNumber = 8; // of Windows' journal
        after->bytes.at(records[0].offset + sequenceNumber) ^= std::byte{1};
        JournaledDevice next(after);
        ASSERT_EQ(next.replay(false), 0);
        EXPECT_TRUE(next.wasRefused()) << flush;
        EXPECT_TRUE(isDirty(after)) << flush;
    }
}

// The library writes the record with the flag itself, when the label changes.
TEST(DirtyFlag, OutlastsWhatTheLibraryWritesOfItsRecord) {
    ReplacedServices services;
    for (const bool found : {false, true}) {
        const auto disk = foundAs(found, volume().image);
        const auto device = std::make_shared<JournaledDevice>(disk);
        const auto ntfs = opened(device);
        for (const char* label : {"a", "another", ""}) {
            ntfs->create(std::string("file") + label, NTFSVolume::kRootIno, NTFSItemType::file);
            ntfs->sync();
            ntfs->setLabel(label);
            ntfs->sync();
            EXPECT_TRUE(isDirty(disk));
            EXPECT_EQ(device->settle(), 0);
            EXPECT_EQ(isDirty(disk), found) << label;
        }
        ntfs->unmount();
        EXPECT_EQ(device->close(), 0);
        EXPECT_EQ(isDirty(disk), found);
    }
}

// Nothing makes a flush whole on volumes without a journal, but others are told all the same.
TEST(DirtyFlag, IsSetWithoutAJournalToo) {
    const auto plain = formatted({.clusterSize = 512}); // the journal's extents are not aligned
    for (const bool found : {false, true}) {
        const auto disk = foundAs(found, plain->bytes);
        const auto device = std::make_shared<JournaledDevice>(disk);
        const auto ntfs = opened(device);
        ASSERT_NE(device->absence(), JournalAbsence::none);
        for (const char* name : {"first", "second"}) {
            disk->events.clear();
            const Bytes before = disk->bytes;
            ntfs->create(name, NTFSVolume::kRootIno, NTFSItemType::file);
            ntfs->setLabel(name);
            ntfs->sync();
            EXPECT_TRUE(isDirty(disk));
            expectFlagFirst(*disk, before);
            if (!found) {
                EXPECT_TRUE(disk->events.at(2).flush) << "both copies, and then a flush";
            }
            Bytes page(kPage); // written once more, and not synced
            ASSERT_EQ(device->read(page.data(), 0, kPage), 0);
            ASSERT_EQ(device->write(page.data(), 0, kPage), 0);
            EXPECT_FALSE(device->isSettled());
            EXPECT_EQ(device->settle(), 0);
            EXPECT_EQ(isDirty(disk), found);
            EXPECT_TRUE(found || disk->events.end()[-4].flush) << "before the flag goes";
        }
        ntfs->unmount();
        EXPECT_EQ(device->close(), 0);
        EXPECT_EQ(isDirty(disk), found);
    }
}

// What the library finds wrong is told to others for good; what the device fails at is not.
TEST(DirtyFlag, StaysWhereTheLibraryFindsDamage) {
    ReplacedServices services;
    const auto disk = diskWith(volume().image);
    std::uint64_t directory = 0;
    {
        const auto device = std::make_shared<JournaledDevice>(disk);
        const auto ntfs = opened(device);
        directory = ntfs->create("directory", NTFSVolume::kRootIno, NTFSItemType::directory);
        for (int i = 0; i < 60; ++i) {
            ntfs->create(fmt::format("an entry with a long name {}", i), directory,
                         NTFSItemType::file);
        }
        ntfs->unmount();
        ASSERT_EQ(device->close(), 0);
    }
    ASSERT_FALSE(isDirty(disk));
    for (const bool isDamaged : {false, true}) {
        for (std::uint64_t at = 0; isDamaged && at < disk->bytes.size(); at += kPage) {
            const std::span page(&disk->bytes.at(at), kPage);
            const auto name = std::as_bytes(std::span(u"an entry", 8));
            if (std::memcmp(page.data(), "INDX", 4) == 0 &&
                std::search(page.begin(), page.end(), name.begin(), name.end()) != page.end()) {
                page.front() = std::byte{'?'};
            }
        }
        const auto device = std::make_shared<JournaledDevice>(disk);
        const auto ntfs = opened(device);
        ntfs->startAutoFlush();
        disk->fail(isDamaged ? 0 : 1, isDamaged ? 0 : 1);
        EXPECT_THROW(static_cast<void>(ntfs->list(directory)), NTFSError);
        services.timers().tick();
        EXPECT_EQ(isDirty(disk), isDamaged);
        ntfs->create(isDamaged ? "a" : "b", NTFSVolume::kRootIno, NTFSItemType::file);
        ntfs->unmount();
        EXPECT_EQ(device->close(), 0);
        EXPECT_EQ(isDirty(disk), isDamaged);
    }
}

// An end that fails half-way, with the flag cleared, leaves a session that goes on.
TEST(DirtyFlag, IsSetAgainBehindAnEndThatFailed) {
    for (std::uint64_t calls = 1;; ++calls) {
        const auto disk = diskWith(volume().image);
        const auto device = mounted(disk);
        writePages(*device, 1, 0, 2);
        ASSERT_EQ(device->sync(), 0);
        disk->fail(calls, calls);
        if (device->settle() == 0) {
            EXPECT_GT(calls, 4u);
            break;
        }
        disk->heal();
        disk->events.clear();
        const Bytes before = disk->bytes;
        writePages(*device, 2, 0, 2);
        ASSERT_EQ(device->sync(), 0);
        expectFlagFirst(*disk, before);
        ASSERT_EQ(device->settle(), 0);
        EXPECT_FALSE(isDirty(disk)) << calls;
    }
}

// Beside what a busy period wrote before there was a flag: each copy set and cleared, one flush.
TEST(DirtyFlag, CostsFourWritesAndAFlushABusyPeriod) {
    const auto count = [](bool found) {
        const auto disk = foundAs(found, volume().image); // where it is set already nothing is done
        const auto device = mounted(disk);
        writePages(*device, 7, 0, 3);
        EXPECT_EQ(device->sync(), 0);
        writePages(*device, 8, 2, 3);
        EXPECT_EQ(device->sync(), 0);
        EXPECT_EQ(device->settle(), 0);
        const auto flushes = std::count_if(disk->events.begin(), disk->events.end(),
                                           [](const DiskEvent& event) { return event.flush; });
        return std::pair(flushes, static_cast<std::ptrdiff_t>(disk->events.size()) - flushes);
    };
    EXPECT_EQ(count(false).first - count(true).first, 1);
    EXPECT_EQ(count(false).second - count(true).second, 4);
}

} // namespace
} // namespace tavelin::test
