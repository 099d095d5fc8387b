// What waits for a sync arrives as a whole or not at all, whatever the power or the device does.
#include "core/journal/journal_disk.hpp"
#include "support/replaced_services.hpp"

#include <array>
#include <map>
#include <set>

namespace tavelin::test {
namespace {

// Random writes and syncs on some pages of the volume, each write with a number of its own.
class Workload {
  public:
    static constexpr std::uint64_t kPages = 180; // fewer than the journal has room for
    enum class Kind { kMetadata, kFileData, kBulkData };
    using State = std::array<std::uint64_t, kPages>;

    Workload(std::uint64_t seed, bool fails)
        : random_(seed), fails_(fails), disk_(diskWith(volume().image)) {
        device_ = mounted(disk_);
        disk_->events.clear();
        base_ = disk_->bytes;
        State first;
        for (std::uint64_t page = 0; page < kPages; ++page) {
            first[page] = valueAt(base_, (volume().work + page) * kPage);
        }
        states_.push_back({first, disk_->events.size()});
        now_ = first;
    }

    void run() {
        for (int step = 0; step < 60; ++step) {
            const auto failing = fails_ && random_() % 4 == 0 ? 1 + random_() % 6 : 0;
            disk_->fail(failing, failing);
            const auto what = random_() % 10;
            if (what < 3) {
                write(1 + random_() % 16, Kind::kMetadata);
            } else if (what < 6) {
                // Now and then more than one record can name.
                write(1 + random_() % (random_() % 4 == 0 ? 100 : 16), Kind::kFileData);
            } else if (what < 7) {
                write(20 + random_() % 60, Kind::kBulkData);
            } else if (what < 9 || !unmount()) {
                note(device_->sync() == 0);
            }
        }
    }

    // Of each cut: after recovery every sector is as one and the same sync left it, or as a later
    // write of file data did.
    void cutEverywhere() {
        for (std::size_t end = 0; end <= disk_->events.size(); ++end) {
            for (const Cut cut : {Cut::prefix, Cut::torn, Cut::reordered}) {
                const auto disk = diskWith(afterCut(base_, disk_->events, end, cut, random_));
                JournaledDevice device(disk);
                ASSERT_EQ(device.replay(false), 0);
                ASSERT_TRUE(isOneState(disk->bytes, end))
                    << "cut " << static_cast<int>(cut) << " after event " << end << " of "
                    << disk_->events.size();
                ASSERT_FALSE(device.wasRefused());
            }
        }
    }

  private:
    struct Moment {
        State pages;
        std::size_t promised; // events when its sync had answered
    };

    void write(std::uint64_t count, Kind kind) {
        const std::uint64_t first = random_() % (kPages - count);
        const Bytes content = pagesOf(++number_, count);
        const std::uint64_t offset = (volume().work + first) * kPage;
        device_->expectBulkData(kind == Kind::kBulkData);
        const std::int32_t error =
            kind == Kind::kFileData ? device_->writeFileData(content.data(), offset, content.size())
                                    : device_->write(content.data(), offset, content.size());
        device_->expectBulkData(false);
        for (std::uint64_t page = first; page < first + count; ++page) {
            if (kind != Kind::kMetadata) {
                fileData_[page].insert(number_);
            }
            if (error == 0) {
                now_[page] = number_;
            }
        }
        EXPECT_TRUE(error == 0 || kind != Kind::kMetadata) << "what waits cannot fail";
        if (error != 0) { // as far as it came
            Bytes seen(kPages * kPage);
            disk_->heal();
            EXPECT_EQ(device_->read(seen.data(), volume().work * kPage, seen.size()), 0);
            for (std::uint64_t page = 0; page < kPages; ++page) {
                now_[page] = valueAt(seen, page * kPage);
            }
        }
    }

    void note(bool isPromised) {
        const std::size_t at = disk_->events.size();
        states_.push_back({now_, isPromised ? at : SIZE_MAX});
    }

    bool unmount() {
        states_.push_back({now_, SIZE_MAX});
        const bool closed = device_->close() == 0;
        if (closed) {
            states_.back().promised = disk_->events.size();
            disk_->heal();
            device_ = mounted(disk_);
            EXPECT_EQ(device_->recovered(), 0u) << "a journal was left after an unmount";
        }
        return closed;
    }

    bool isOneState(const Bytes& image, std::size_t end) const {
        std::size_t promised = 0;
        for (std::size_t i = 0; i < states_.size(); ++i) {
            promised = states_[i].promised <= end ? i : promised;
        }
        for (std::size_t i = promised; i < states_.size(); ++i) {
            bool fits = true;
            for (std::uint64_t at = 0; fits && at < kPages * kPage; at += kSector) {
                const std::uint64_t value = valueAt(image, volume().work * kPage + at);
                const std::uint64_t then = states_[i].pages[at / kPage];
                fits = value == then || (value > then && isFileData(at / kPage, value));
            }
            if (fits) {
                return true;
            }
        }
        return false;
    }

    bool isFileData(std::uint64_t page, std::uint64_t value) const {
        const auto writes = fileData_.find(page);
        return writes != fileData_.end() && writes->second.contains(value);
    }

    std::mt19937_64 random_;
    const bool fails_;
    std::shared_ptr<Disk> disk_;
    std::shared_ptr<JournaledDevice> device_;
    Bytes base_;
    State now_{};
    std::uint64_t number_ = 1u << 20; // no content of the volume
    std::vector<Moment> states_;
    std::map<std::uint64_t, std::set<std::uint64_t>> fileData_; // numbers written, by page
};

TEST(Journal, CarriesEachSyncOverACutAsAWhole) {
    for (std::uint64_t seed = 1; seed <= 12; ++seed) {
        Workload story(seed, seed % 2 == 0);
        story.run();
        story.cutEverywhere();
        ASSERT_FALSE(testing::Test::HasFailure()) << "seed " << seed;
    }
}

// A committed record of twelve pages, of which not all went home.
void leaveUnfinishedHome(Disk& disk, JournaledDevice& device) {
    writePages(device, 77, 0, 12);
    disk.fail(3, 3, EIO, kChanges); // its first page
    EXPECT_EQ(device.sync(), EIO);
}

// A record that the disk would not keep has reached it all the same, and the journal begins again.
TEST(Journal, PutsNothingInPlaceThatTheDiskDidNotPromiseToKeep) {
    const auto disk = diskWith(volume().image);
    const auto device = mounted(disk);
    leaveUnfinishedHome(*disk, *device);
    writePages(*device, 88, 12, 1);
    disk->fail(2, 2, EIO, kChanges); // the device's sync
    EXPECT_EQ(device->sync(), EIO);
    const BlockDevice::Backlog backlog = device->backlog();
    writePages(*device, 99, 13, backlog.capacity - backlog.pages); // does not fit behind
    disk->events.clear();
    const Bytes before = disk->bytes;
    EXPECT_EQ(device->sync(), 0);
    const auto& events = disk->events;
    const auto isFlush = [](const DiskEvent& event) { return event.flush; };
    const auto flag = std::find_if(events.begin(), events.end(), isFlush); // is home
    const auto flush = std::find_if(flag + 1, events.end(), isFlush);
    std::mt19937_64 random;
    const auto end = static_cast<std::size_t>(flush - events.begin());
    const Bytes then = afterCut(before, events, end, Cut::prefix, random);
    EXPECT_EQ(valueAt(then, volume().work * kPage), 77u);
    EXPECT_NE(valueAt(then, (volume().work + 12) * kPage), 88u);
}

// File data that the journal still has goes through it again, and must not fill the record.
TEST(Journal, KeepsAFlushWholeWhateverFileDataItHas) {
    const auto disk = diskWith(volume().image);
    const auto device = mounted(disk);
    const std::uint64_t capacity = device->backlog().capacity;
    const std::uint64_t count = capacity * 3 / 4;
    writePages(*device, 77, 0, count);
    ASSERT_EQ(device->sync(), 0);
    const Bytes data = pagesOf(88, count);
    writePages(*device, 99, count, capacity / 4);
    ASSERT_EQ(device->writeFileData(data.data(), volume().work * kPage, data.size()), 0);
    writePages(*device, 99, count + capacity / 4, 4);
    EXPECT_NE(valueAt(disk->bytes, (volume().work + count) * kPage), 99u);
    ASSERT_EQ(device->sync(), 0);
    EXPECT_EQ(valueAt(disk->bytes, (volume().work + count) * kPage), 99u);
    EXPECT_EQ(valueAt(disk->bytes, (volume().work + count - 1) * kPage), 88u);
}

TEST(Journal, TakesTheLongestRecordAgainAndAgain) {
    const auto disk = diskWith(volume().image);
    disk->bytes.resize(16u << 20); // the volume has not so many pages beside the log
    const auto device = mounted(disk);
    const std::uint64_t pages = device->backlog().capacity;
    // More file data than a record can name goes home before it, and must stay there.
    writePages(*device, 4, 0, 1);
    ASSERT_EQ(device->sync(), 0);
    writePages(*device, 4, 0, 1);
    const Bytes many = pagesOf(4, pages);
    EXPECT_EQ(device->writeFileData(many.data(), (volume().work + 2 * pages) * kPage, many.size()),
              0);
    disk->events.clear();
    EXPECT_EQ(device->sync(), 0);
    const auto record = std::ranges::find_if(disk->events, [](const DiskEvent& event) {
        return event.offset - volume().log.offset < volume().log.length;
    });
    EXPECT_TRUE(std::any_of(disk->events.begin(), record,
                            [](const DiskEvent& event) { return event.flush; }));
    for (const std::uint64_t round : {1, 2, 3}) {
        writePages(*device, round, 0, pages);
        const Bytes data = pagesOf(round, (pages + kFlagPages) / 2); // as many as it can name
        EXPECT_EQ(device->writeFileData(data.data(), (volume().work + pages) * kPage, data.size()),
                  0);
        Bytes seen(kPage);
        EXPECT_EQ(device->read(seen.data(), (volume().work + pages) * kPage, kPage), 0);
        EXPECT_EQ(valueAt(seen, 0), round) << "it waits";
        EXPECT_EQ(device->sync(), 0) << round;
        EXPECT_EQ(valueAt(disk->bytes, (volume().work + pages - 1) * kPage), round);
    }
    disk->events.clear();
    writePages(*device, 4, 0, pages);
    EXPECT_TRUE(disk->events.empty());
    writePages(*device, 4, pages, 1);
    EXPECT_FALSE(disk->events.empty()) << "more than a record can carry";
}

// The disk may have dropped it, so no record may make it reachable.
TEST(Journal, SyncsBulkDataAgainAfterASyncThatFailed) {
    const auto disk = diskWith(volume().image);
    const auto device = mounted(disk);
    device->expectBulkData(true);
    writePages(*device, 2, 9, NTB_CACHED_BYTES_MAX / kPage + 1);
    device->expectBulkData(false);
    writePages(*device, 3, 1, 1);
    disk->failFrom(1, EIO, {DiskCall::flush});
    EXPECT_EQ(device->sync(), EIO);
    disk->heal();
    disk->events.clear();
    EXPECT_EQ(device->sync(), 0);
    EXPECT_TRUE(disk->events.at(0).flush);
    writePages(*device, 4, 1, 1);
    disk->events.clear();
    EXPECT_EQ(device->sync(), 0);
    EXPECT_FALSE(disk->events.at(0).flush) << "nothing waits for it";
}

// It is the device then and not a sector of the log, and may pass.
TEST(Journal, StaysWhereNothingOfItCanBeWrittenForAWhile) {
    const ReplacedServices services;
    const auto disk = diskWith(volume().image);
    const auto device = mounted(disk);
    writePages(*device, 1, 0, 3);
    ASSERT_EQ(device->sync(), 0);
    for (std::uint64_t at = 0; at < volume().log.length; at += kSector) {
        disk->unwritable.insert((volume().log.offset + at) / kSector);
    }
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(device->settle(), EIO);
        device->checkInvariants();
    }
    disk->unwritable.clear();
    writePages(*device, 2, 0, 1);
    EXPECT_EQ(device->sync(), 0);
    EXPECT_GT(recoverable(*disk), 0u) << "it goes on";
    EXPECT_EQ(device->close(), 0);
    EXPECT_EQ(recoverable(*disk), 0u);
}

TEST(Journal, GivesUpNoRecordThatItCannotReadBack) {
    const auto disk = diskWith(volume().image);
    const auto device = mounted(disk);
    leaveUnfinishedHome(*disk, *device);
    logByte(*disk, kRecords + 3 * kPage) ^= std::byte{1};
    const BlockDevice::Backlog backlog = device->backlog();
    writePages(*device, 99, 12, backlog.capacity - backlog.pages); // does not fit behind
    const Bytes before = disk->bytes;
    EXPECT_EQ(device->sync(), EIO);
    EXPECT_TRUE(disk->bytes == before);
}

TEST(Journal, IsReadThroughWhereNothingMayBeWritten) {
    const auto disk = interrupted(77);
    const Bytes before = disk->bytes;
    JournaledDevice device(disk);
    ASSERT_EQ(device.replay(true), 0);
    Bytes seen(2 * kPage);
    ASSERT_EQ(device.read(seen.data(), volume().work * kPage - kPage, seen.size()), 0);
    EXPECT_EQ(valueAt(seen, kPage), 77u);
    EXPECT_NE(valueAt(seen, 0), 77u);
    EXPECT_TRUE(disk->bytes == before);
}

// Whoever changes the volume without knowing of the journal takes its validity away.
TEST(Journal, DoesNotOutliveOtherSystems) {
    const auto library = interrupted(77);
    ASSERT_EQ(recoverable(*library), 3u + kFlagPages);
    NTFSVolume::open(library, false)->unmount();
    EXPECT_EQ(recoverable(*library), 0u) << "the NTFS library mounted the volume for writing";

    const auto windows = interrupted(77);
    std::memcpy(&windows->bytes.at(volume().log.offset), "RSTR", 4);
    EXPECT_EQ(recoverable(*windows), 0u) << "Windows has begun a journal";
    windows->events.clear();
    const Bytes before = windows->bytes;
    {
        const auto device = mounted(windows);
        writePages(*device, 1, 9, 1);
        EXPECT_EQ(device->sync(), 0);
        EXPECT_EQ(recoverable(*windows), 1u + kFlagPages) << "behind Windows's journal";
        EXPECT_EQ(device->close(), 0);
    }
    std::mt19937_64 random(1);
    for (std::size_t end = 0; end <= windows->events.size(); ++end) {
        const auto cut = diskWith(afterCut(before, windows->events, end, Cut::prefix, random));
        ASSERT_EQ(JournaledDevice(cut).replay(false), 0);
        EXPECT_NE(valueAt(cut->bytes, volume().work * kPage), 77u) << "after event " << end;
    }
    std::fill_n(windows->bytes.begin() + static_cast<std::ptrdiff_t>(volume().log.offset), kPage,
                std::byte{0xff});
    EXPECT_EQ(recoverable(*windows), 0u) << "what Windows's journal hid came back";
}

TEST(Journal, OfAnotherVolumeOrDamagedIsIgnored) {
    const std::uint64_t record = volume().log.offset + (64u << 10);
    for (const std::uint64_t at :
         {std::uint64_t{72}, record, record + 16, record + 40, record + 3 * kPage + 100}) {
        const auto disk = interrupted(77);
        disk->bytes.at(at) ^= std::byte{1};
        JournaledDevice device(disk);
        EXPECT_EQ(device.replay(false), 0);
        EXPECT_EQ(device.recovered(), 0u) << at;
    }
}

// $LogFile of a volume with small clusters shares pages of the device with its neighbours.
TEST(Journal, LeavesTheNeighboursOfTheLogWritable) {
    const auto disk = formatted({.clusterSize = 512});
    const auto device = std::make_shared<JournaledDevice>(disk);
    const auto ntfs = opened(device);
    for (int i = 0; i < 100; ++i) {
        ntfs->create(std::to_string(i), NTFSVolume::kRootIno, NTFSItemType::file);
    }
    EXPECT_NO_THROW(ntfs->sync());
    EXPECT_NO_THROW(ntfs->unmount());
    EXPECT_EQ(device->close(), 0);
}

// What a file leaves is taken by other data only once a cut cannot bring the file back.
TEST(Journal, KeepsFreedClustersUntilTheyAreFreeAfterACutToo) {
    constexpr auto kRoot = NTFSVolume::kRootIno;
    const auto disk = diskWith(volume().image);
    const auto device = std::make_shared<JournaledDevice>(disk);
    const auto ntfs = opened(device);
    const Bytes old = pagesOf(1, 40);
    for (const char* name : {"removed", "replaced", "shrunk"}) {
        ntfs->write(ntfs->create(name, kRoot, NTFSItemType::file), 0, old);
    }
    const auto shrunk = ntfs->lookup("shrunk", kRoot);
    ntfs->setXattr("note", shrunk, old, NTFSVolume::XattrPolicy::always);
    ntfs->create("replacing", kRoot, NTFSItemType::file);
    const auto next = ntfs->create("next", kRoot, NTFSItemType::file);
    const auto filler = ntfs->create("filler", kRoot, NTFSItemType::file);
    for (std::uint64_t at = 0; ntfs->statfs().freeClusters > 20; at += kPage) {
        ntfs->write(filler, at, pagesOf(2, 1));
    }
    const std::vector<std::pair<std::string, std::function<void()>>> freeings{
        {"removed", [&] { ntfs->remove("removed", kRoot); }},
        {"replaced", [&] { ntfs->rename("replacing", kRoot, "replaced", kRoot); }},
        {"shrunk", [&] { ntfs->truncate(shrunk, 0); }},
        {"note", [&] { ntfs->removeXattr("note", shrunk); }},
    };
    std::uint64_t end = 0;
    for (const auto& [what, free] : freeings) {
        ntfs->sync();
        free();
        // In one piece it goes around the cache. In small ones it waits for a sync, whose record is
        // cut off here.
        if (&what == &freeings.front().first || what == "shrunk") {
            end += ntfs->write(next, end, pagesOf(3, 39)).count;
        } else {
            for (int i = 0; i < 39; ++i) {
                end += ntfs->write(next, end, pagesOf(3, 1)).count;
            }
            disk->failFrom(1, EIO, {DiskCall::flush});
            EXPECT_THROW(ntfs->sync(), NTFSError);
            disk->heal();
        }
        const auto copy = diskWith(disk->bytes);
        logByte(*copy, kRecords) = {};
        const auto cut = std::make_shared<JournaledDevice>(copy);
        ASSERT_EQ(cut->replay(false), 0);
        const auto after = NTFSVolume::open(cut, true);
        const bool isNote = what == "note";
        const auto ino = after->lookup(isNote ? "shrunk" : what, kRoot);
        EXPECT_TRUE((isNote ? after->xattr("note", ino) : after->read(ino, 0, old.size())) == old)
            << what;
    }
}

// The cache below a volume writes back by itself once it is half full, and during a large request
// that would pass for file data.
TEST(Journal, IsFlushedBeforeTheCacheWritesBackByItself) {
    const auto disk = formatted({.bytes = 48u << 20});
    disk->room = 1u << 20;
    const auto ntfs = NTFSVolume::open(disk, false);
    const auto file = ntfs->create("file", NTFSVolume::kRootIno, NTFSItemType::file);
    std::uint64_t most = 0;
    for (std::uint64_t at = 0; at < (24u << 20); at += 16 * kPage) {
        ntfs->write(file, at, pagesOf(1, 16));
        most = std::max(most, ntfs->ioStats().dirtyPages);
    }
    EXPECT_GT(most, 512u);         // it waits at all
    EXPECT_LT(most, 4096u - 512u); // more than a large request makes dirty
}

// The order of writes inside a flush matters only where no journal makes the flush atomic.
TEST(Journal, SparesARenameItsFlush) {
    for (const bool hasJournal : {true, false}) {
        const auto disk = diskWith(volume().image);
        const auto ntfs = hasJournal ? opened(std::make_shared<JournaledDevice>(disk))
                                     : NTFSVolume::open(disk, false);
        ntfs->create("0", NTFSVolume::kRootIno, NTFSItemType::file);
        const auto before = ntfs->ioStats().deviceWrites;
        for (int i = 0; i < 20; ++i) {
            ntfs->rename(std::to_string(i), NTFSVolume::kRootIno, std::to_string(i + 1),
                         NTFSVolume::kRootIno);
        }
        EXPECT_EQ(ntfs->ioStats().deviceWrites == before, hasJournal);
    }
}

} // namespace
} // namespace tavelin::test
