// What a mount makes of a journal that it finds: completes it, leaves out what another system has
// overtaken, gets by without what cannot be read.
#include "core/journal/journal_disk.hpp"
#include "support/replaced_services.hpp"

#include <fmt/format.h>

#include <functional>

namespace tavelin::test {
namespace {

TEST(CRC32C, IsTheSameByInstructionAndByTables) {
    const std::string_view digits = "123456789";
    EXPECT_EQ(crc32c(std::as_bytes(std::span(digits)).data(), digits.size()), 0xe3069283u);
    std::mt19937_64 random(1);
    Bytes bytes(3 * kPage);
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<std::byte>(random()); });
    for (int i = 0; i < 200; ++i) {
        const std::size_t from = random() % kPage;
        const std::size_t length = random() % 2 == 0 ? random() % 20 : random() % kPage;
        const auto before = static_cast<std::uint32_t>(random());
        EXPECT_EQ(crc32c(&bytes[from], length, before),
                  crc32cByTables(&bytes[from], length, before));
        const SectorSums sums = sectorSums(&bytes[from]);
        const std::size_t sector = random() % kSectorsPerPage;
        EXPECT_EQ(sums[sector], crc32cByTables(&bytes[from + sector * kSector], kSector, 0));
    }
}

// Others have been at the volume while a flush of three pages waited in the journal.
TEST(Replay, LeavesAloneWhatOthersWroteSince) {
    struct Case {
        const char* what;
        std::function<void(Disk&)> neighbour;
        bool isRefused;
    };
    const std::uint64_t place = volume().work * kPage;
    const auto edit = [](std::uint64_t at) {
        return [=](Disk& disk) { disk.bytes.at(at) ^= std::byte{1}; };
    };
    const std::vector<Case> cases{
        {"nobody", [](Disk&) {}, false},
        {"another page", edit(place - 1), false},
        {"the next page", edit(place + 3 * kPage), false},
        {"a home write that was cut off",
         [&](Disk& disk) {
             const Bytes content = pagesOf(77, 1);
             std::copy_n(content.begin(), 3 * kSector,
                         disk.bytes.begin() + static_cast<std::ptrdiff_t>(place + kPage));
         },
         false},
        {"a sector that such a write left unreadable",
         [&](Disk& disk) {
             edit(place + kPage)(disk);
             disk.lost.insert((place + kPage) / kSector);
         },
         false},
        {"the first sector of the flush", edit(place), true},
        {"the last one", edit(place + 3 * kPage - 1), true},
    };
    for (const auto& [what, neighbour, isRefused] : cases) {
        for (const bool readOnly : {true, false}) {
            const ReplacedServices services;
            const auto disk = interrupted(77);
            neighbour(*disk);
            const Bytes before = disk->bytes;
            JournaledDevice device(disk);
            ASSERT_EQ(device.replay(readOnly), 0) << what;
            EXPECT_EQ(device.wasRefused(), isRefused) << what;
            EXPECT_EQ(device.recovered(), isRefused ? 0u : 3u + kFlagPages) << what;
            Bytes seen(3 * kPage);
            if (isRefused || !readOnly) {
                ASSERT_EQ(disk->read(seen.data(), place, seen.size()), 0) << what;
                const auto was = before.begin() + static_cast<std::ptrdiff_t>(place);
                const Bytes expected = isRefused ? Bytes(was, was + 3 * kPage) : pagesOf(77, 3);
                EXPECT_TRUE(seen == expected) << what;
            }
            if (readOnly) {
                EXPECT_TRUE(disk->bytes == before) << what;
                continue;
            }
            EXPECT_EQ(isDirty(disk), isRefused) << what;
            EXPECT_TRUE(isLogBlank(*disk)) << what;
            JournaledDevice next(disk);
            EXPECT_EQ(next.replay(false), 0);
            EXPECT_FALSE(next.wasRefused()) << "asked about once";
        }
    }
}

// What a page was before is what the disk made of it, not what was written there last.
TEST(Replay, CompletesAFlushOverPagesThatWereDiscarded) {
    const auto disk = diskWith(volume().image);
    const auto device = mounted(disk);
    writePages(*device, 5, 0, 3);
    ASSERT_EQ(device->settle(), 0);
    ASSERT_EQ(device->discard(volume().work * kPage, 3 * kPage), 0);
    writePages(*device, 6, 0, 3);
    // The sync of the discard, the record, the device's sync, the pages.
    disk->fail(4, 4, EIO, kChanges);
    EXPECT_EQ(device->sync(), EIO);
    JournaledDevice next(disk);
    ASSERT_EQ(next.replay(false), 0);
    EXPECT_FALSE(next.wasRefused());
    EXPECT_EQ(next.recovered(), 3u + kFlagPages);
    EXPECT_EQ(valueAt(disk->bytes, (volume().work + 2) * kPage), 6u);
}

// The last record names file data that was to reach the disk with it.
TEST(Replay, LeavesOutTheLastFlushWithoutItsFileData) {
    struct Case {
        const char* what;
        std::function<void(Disk&)> change;
        bool isComplete;
    };
    const auto place = [](std::uint64_t page) { return (volume().work + page) * kPage; };
    const auto edit = [](std::uint64_t at) {
        return [=](Disk& disk) { disk.bytes.at(at) ^= std::byte{1}; };
    };
    const std::vector<Case> cases{
        {"all of it is there", [](Disk&) {}, true},
        {"its first sector is not", edit(place(11)), false},
        {"its last sector is not", edit(place(13) - 1), false},
        {"a sector cannot be read", [&](Disk& d) { d.lost.insert(place(12) / kSector); }, true},
        {"that of the flush before was changed since", edit(place(10)), true},
        {"it was changed after the flush had begun to go home",
         [&](Disk& disk) {
             edit(place(11))(disk);
             const Bytes content = pagesOf(6, 1);
             std::copy_n(content.begin(), kSector, &disk.bytes.at(place(2)));
         },
         true},
    };
    for (const auto& [what, change, isComplete] : cases) {
        const auto disk = diskWith(volume().image);
        const auto device = mounted(disk);
        for (const std::uint64_t round : {0, 1}) {
            writePages(*device, 5 + round, 2 * round, 1);
            const Bytes data = pagesOf(50 + round, 1 + round);
            EXPECT_EQ(device->writeFileData(data.data(), place(10 + round), data.size()), 0);
            // The data, the record, the device's sync, the pages.
            disk->fail(4, 4, EIO, kChanges);
            EXPECT_EQ(device->sync(), EIO);
            disk->heal();
        }
        change(*disk);
        for (const bool readOnly : {true, false}) {
            JournaledDevice next(disk);
            ASSERT_EQ(next.replay(readOnly), 0) << what;
            EXPECT_EQ(next.recovered(), (isComplete ? 2u : 1u) + kFlagPages) << what;
            EXPECT_FALSE(next.wasRefused()) << what;
            Bytes seen(3 * kPage);
            ASSERT_EQ(next.read(seen.data(), place(0), seen.size()), 0) << what;
            EXPECT_EQ(valueAt(seen, 0), 5u) << what;
            EXPECT_EQ(valueAt(seen, 2 * kPage) == 6, isComplete) << what;
        }
        EXPECT_TRUE(isLogBlank(*disk)) << what;
    }
}

// Records that a lap or a session before left behind the valid ones.
TEST(Replay, StopsAtRecordsThatDoNotFollow) {
    const std::uint64_t length = JournalRecord::length(1, 0) * kPage;
    const std::uint64_t second = kRecords + JournalRecord::length(1 + kFlagPages, 0) * kPage;
    const auto recordAt = [&](const Disk& disk, std::uint64_t index) {
        const auto from =
            disk.bytes.begin() +
            static_cast<std::ptrdiff_t>(volume().log.offset + second + (index - 1) * length);
        return Bytes(from, from + static_cast<std::ptrdiff_t>(length));
    };
    const auto threeRecords = [] {
        const auto disk = diskWith(volume().image);
        const auto device = mounted(disk);
        for (const std::uint64_t page : {0, 2, 4}) {
            writePages(*device, 5, page, 1);
            EXPECT_EQ(device->sync(), 0);
        }
        return disk;
    };
    const auto disk = threeRecords();
    ASSERT_EQ(recoverable(*disk), 3u + kFlagPages);
    const Bytes third = recordAt(*disk, 2);
    const Bytes other = recordAt(*threeRecords(), 1);
    for (const Bytes& wrong : {third, other}) {
        Disk changed(disk->bytes);
        std::copy(wrong.begin(), wrong.end(), &logByte(changed, second));
        EXPECT_EQ(recoverable(changed), 1u + kFlagPages)
            << "a record that does not follow was taken for the next";
    }
}

// A recovery that is cut off itself is made up for by the next one, and so is a refusal.
TEST(Replay, ComesToTheSameEndHoweverOftenItIsCutOff) {
    std::mt19937_64 random(1);
    for (const bool isForeign : {false, true}) {
        const ReplacedServices services;
        const auto found = interrupted(77);
        found->bytes.at(volume().work * kPage) ^= isForeign ? std::byte{1} : std::byte{};
        found->events.clear();
        const Bytes before = found->bytes;
        ASSERT_EQ(JournaledDevice(found).replay(false), 0);
        for (std::size_t end = 0; end <= found->events.size(); ++end) {
            for (const Cut cut : manyCuts()) {
                const auto disk = diskWith(afterCut(before, found->events, end, cut, random));
                ASSERT_EQ(JournaledDevice(disk).replay(false), 0);
                EXPECT_TRUE(disk->bytes == found->bytes)
                    << "foreign " << isForeign << ", cut " << static_cast<int>(cut)
                    << " after event " << end << " of " << found->events.size();
            }
        }
    }
}

// The header of a record as a hostile or damaged disk may have it, with the right checksum.
TEST(Replay, BelievesNoHeaderThatCannotBe) {
    const std::uint64_t pageCount = volume().image.size() / kPage;
    struct Case {
        const char* what;
        std::vector<std::uint64_t> pages;
        std::uint64_t at; // a number in the header, which then is another
        std::uint32_t number;
    };
    constexpr std::uint64_t kMagic = 0, kVersion = 12, kCount = 16;
    const std::uint64_t first = volume().work;
    const std::vector<Case> cases{
        {"as it should be", {first, first + 1}, kCount, 2},
        {"a page twice", {first, first}, kCount, 2},
        {"descending", {first + 1, first}, kCount, 2},
        {"behind the end of the device", {first, pageCount}, kCount, 2},
        {"no pages", {first, first + 1}, kCount, 0},
        {"more than $LogFile has", {first, first + 1}, kCount, 4000},
        {"more than there are", {first, first + 1}, kCount, UINT32_MAX},
        {"of a format to come", {first, first + 1}, kVersion, 1000},
        {"of another program", {first, first + 1}, kMagic, 0},
    };
    for (const auto& [what, pages, at, number] : cases) {
        const auto disk = diskWith(volume().image);
        JournalRecord record{
            .pages = 2, .serial = valueAt(disk->bytes, 72), .session = 11, .sequence = 1};
        const Bytes content = pagesOf(66, 1);
        std::vector<JournalEntry> entries;
        for (const std::uint64_t page : pages) {
            const bool isThere = page < pageCount;
            entries.push_back({page, sectorSums(&disk->bytes.at(isThere ? page * kPage : 0)),
                               sectorSums(content.data())});
        }
        Bytes whole = record.encode(entries);
        std::memcpy(&whole[at], &number, sizeof number);
        std::memset(&whole[8], 0, 4);
        std::uint32_t count = 0;
        std::memcpy(&count, &whole[kCount], sizeof count);
        const std::uint64_t covered = JournalRecord::headerBytes(count);
        const std::uint32_t sum = crc32c(whole.data(), std::min(covered, whole.size()));
        std::memcpy(&whole[8], &sum, sizeof sum);
        for (std::size_t i = 0; i < pages.size(); ++i) {
            whole.insert(whole.end(), content.begin(), content.end());
            const auto hidden = record.escaped(content.data());
            std::copy(hidden.begin(), hidden.end(), &whole[whole.size() - kPage]);
        }
        std::copy(whole.begin(), whole.end(), &logByte(*disk, kRecords));
        JournaledDevice device(disk);
        EXPECT_EQ(device.replay(false), 0) << what;
        EXPECT_EQ(device.recovered(), what == cases[0].what ? 2u : 0u) << what;
        EXPECT_FALSE(device.wasRefused()) << what;
    }
}

TEST(Replay, ShowsNoDriverAPageOfWindowsLog) {
    const auto disk = diskWith(volume().image);
    const auto device = mounted(disk);
    for (const char* const signature : {"RSTR", "RCRD", "CHKD"}) {
        Bytes page = pagesOf(1, 1);
        std::memcpy(page.data(), signature, 4);
        EXPECT_EQ(device->write(page.data(), volume().work * kPage, kPage), 0);
        EXPECT_EQ(device->sync(), 0);
        for (std::uint64_t at = 0; at < volume().log.length; at += kPage) {
            EXPECT_NE(std::memcmp(&logByte(*disk, at), signature, 4), 0) << signature;
        }
    }
}

TEST(Replay, NobodyWritesOverTheJournal) {
    const auto disk = diskWith(volume().image);
    const auto device = mounted(disk);
    const Bytes pages = pagesOf(1, 20);
    for (const bool isFileData : {false, true}) {
        device->expectBulkData(isFileData);
        EXPECT_EQ(device->write(pages.data(), volume().log.offset, pages.size()), EIO);
        EXPECT_EQ(device->write(pages.data(), volume().log.offset - kPage, pages.size()), EIO);
    }
    EXPECT_EQ(device->writeFileData(pages.data(), volume().log.offset, pages.size()), EIO);
    EXPECT_TRUE(disk->bytes == volume().image);
}

// A sector of $LogFile that cannot be read, and is or is not healed by being written.
TEST(Replay, GetsByWithoutASectorOfTheLog) {
    struct Case {
        const char* what;
        std::uint64_t offset; // in $LogFile
        std::uint64_t recovered;
    };
    const std::vector<Case> cases{
        {"where Windows would begin a log", 0, 3 + kFlagPages},
        {"in the blank part", 20 * kSector, 3 + kFlagPages},
        {"the header", kRecords, 0},
        {"the content", kRecords + 2 * kPage, 0},
        {"behind the only record", kRecords + 6 * kPage, 3 + kFlagPages},
    };
    for (const auto& [what, offset, recovered] : cases) {
        for (const bool isHealing : {true, false}) {
            for (const bool isClean : {false, true}) {
                if (isClean && !isHealing && offset > kRecords) {
                    continue; // a mount has no cause to look there
                }
                const ReplacedServices services;
                const auto disk = isClean ? diskWith(volume().image) : interrupted(77);
                disk->lost.insert((volume().log.offset + offset) / kSector);
                disk->isHealing = isHealing;
                const auto device = std::make_shared<JournaledDevice>(disk);
                ASSERT_EQ(device->replay(false), 0) << what;
                EXPECT_EQ(device->recovered(), isClean ? 0u : recovered) << what;
                SCOPED_TRACE(fmt::format("{}, healing {}, clean {}", what, isHealing, isClean));
                const auto ntfs = NTFSVolume::open(device, false);
                ASSERT_FALSE(ntfs->readOnly()) << what;
                ASSERT_EQ(device->begin(), 0);
                ntfs->create("file", NTFSVolume::kRootIno, NTFSItemType::file);
                ntfs->unmount();
                EXPECT_EQ(device->close(), 0) << what;
                disk->lost.clear();
                JournaledDevice next(disk);
                ASSERT_EQ(next.replay(false), 0);
                EXPECT_EQ(next.recovered(), 0u) << what << ": an old flush came back";
                EXPECT_FALSE(next.wasRefused()) << what;
                EXPECT_EQ(NTFSVolume::open(disk, true)->list(NTFSVolume::kRootIno).size(), 1u);
            }
        }
    }
}

// A sector of $LogFile that can be read and not written, met by a record or by the journal's end.
TEST(Replay, GoesOnWithoutALogThatCannotBeWritten) {
    for (const std::uint64_t offset :
         {kRecords, kRecords + kSector, kRecords + kPage, kRecords + 20 * kPage}) {
        for (const bool isMetAtTheEnd : {false, true}) {
            SCOPED_TRACE(fmt::format("{}, at the end {}", offset, isMetAtTheEnd));
            const ReplacedServices services;
            const auto disk = diskWith(volume().image);
            const std::uint64_t sector = (volume().log.offset + offset) / kSector;
            if (!isMetAtTheEnd) {
                disk->unwritable.insert(sector);
            }
            const auto device = std::make_shared<JournaledDevice>(disk);
            const auto ntfs = opened(device);
            const auto create = [](NTFSVolume& into, const std::string& name) {
                into.create(name, NTFSVolume::kRootIno, NTFSItemType::file);
                try {
                    into.sync();
                } catch (const NTFSError&) {
                    into.sync(); // the first failure might have passed
                }
            };
            for (int i = 0; i < 12; ++i) {
                create(*ntfs, std::to_string(i));
            }
            EXPECT_TRUE(isDirty(disk));
            expectFlagFirst(*disk, volume().image);
            disk->unwritable.insert(sector);
            for (int i = 0; i < 3; ++i) {
                static_cast<void>(device->settle());
            }
            EXPECT_EQ(device->absence(), JournalAbsence::unreadable);
            EXPECT_FALSE(isDirty(disk));
            create(*ntfs, "later");
            EXPECT_TRUE(isDirty(disk));
            const auto cut = diskWith(disk->bytes);
            EXPECT_EQ(JournaledDevice(cut).replay(false), 0);
            EXPECT_TRUE(isDirty(cut)) << "what is left of the log tells of no later change";
            ntfs->unmount();
            EXPECT_EQ(device->close(), 0);
            const auto next = std::make_shared<JournaledDevice>(disk);
            const auto again = opened(next);
            EXPECT_EQ(next->recovered(), 0u);
            EXPECT_EQ(again->list(NTFSVolume::kRootIno).size(), 13u);
            create(*again, "one more");
            again->unmount();
            disk->unwritable.clear();
            EXPECT_EQ(next->close(), 0);
            EXPECT_FALSE(isDirty(disk));
        }
    }
}

// Then the records stay valid, and must not be replayed over changes to come.
TEST(Replay, RefusesALogOfWhichNothingCanBeWritten) {
    const ReplacedServices services;
    const auto disk = interrupted(77);
    for (std::uint64_t at = 0; at < volume().log.length; at += kSector) {
        disk->unwritable.insert((volume().log.offset + at) / kSector);
    }
    EXPECT_EQ(JournaledDevice(disk).replay(false), EIO);
}

TEST(Replay, BeginsNoJournalWhereASectorWasLostSince) {
    const auto disk = diskWith(volume().image);
    JournaledDevice device(disk);
    ASSERT_EQ(device.replay(false), 0);
    disk->lost.insert(volume().log.offset / kSector);
    EXPECT_EQ(device.begin(), 0);
    EXPECT_EQ(device.absence(), JournalAbsence::unreadable);
}

// A fault that passes must cost nobody a flush.
TEST(Replay, TakesNoPassingFaultForALostSector) {
    for (std::uint64_t call = 1; call < 60; ++call) {
        const auto disk = interrupted(77);
        disk->fail(call, call);
        JournaledDevice device(disk);
        if (device.replay(false) != 0) {
            ASSERT_EQ(device.replay(false), 0) << call;
        }
        EXPECT_EQ(valueAt(disk->bytes, volume().work * kPage), 77u) << call;
        EXPECT_TRUE(isLogBlank(*disk)) << call;
        EXPECT_EQ(device.absence(), JournalAbsence::none) << call;
    }
}

TEST(Settling, LeavesAnIdleDiskAsOtherSystemsExpectIt) {
    ReplacedServices services;
    const auto disk = diskWith(volume().image);
    const auto device = std::make_shared<JournaledDevice>(disk);
    const auto ntfs = opened(device);
    ntfs->startAutoFlush();
    for (int round = 0; round < 3; ++round) {
        ntfs->create(std::to_string(round), NTFSVolume::kRootIno, NTFSItemType::file);
        services.timers().tick(); // flushes
        EXPECT_FALSE(isLogBlank(*disk)) << "there was no journal at all";
        EXPECT_FALSE(device->isSettled());
        services.timers().tick(); // finds nothing new
        EXPECT_TRUE(isLogBlank(*disk)) << round;
        EXPECT_TRUE(device->isSettled());
        EXPECT_TRUE(disk->events.back().flush) << "the blanking was not synced";
        const auto events = disk->events.size();
        services.timers().tick();
        EXPECT_EQ(disk->events.size(), events) << "and nothing is left to do";
    }
    ntfs->unmount();
    EXPECT_EQ(device->close(), 0);
}

TEST(Settling, AMountThatChangesNothingWritesNothing) {
    ReplacedServices services;
    const auto disk = diskWith(volume().image);
    const auto device = std::make_shared<JournaledDevice>(disk);
    const auto ntfs = opened(device);
    ntfs->startAutoFlush();
    EXPECT_TRUE(ntfs->list(NTFSVolume::kRootIno).empty());
    services.timers().tick();
    services.timers().tick();
    ntfs->unmount();
    EXPECT_EQ(device->close(), 0);
    EXPECT_TRUE(disk->bytes == volume().image);
    EXPECT_TRUE(std::all_of(disk->events.begin(), disk->events.end(),
                            [](const DiskEvent& event) { return event.flush; }));
}

// What fails while the journal ends is done by a later tick, and costs nothing meanwhile.
TEST(Settling, IsTriedAgain) {
    for (std::uint64_t call = 1; call < 12; ++call) {
        const auto disk = diskWith(volume().image);
        const auto device = mounted(disk);
        writePages(*device, 5, 0, 3);
        EXPECT_EQ(device->sync(), 0);
        disk->fail(call, call);
        if (device->settle() != 0) {
            JournaledDevice cut(diskWith(disk->bytes));
            EXPECT_EQ(cut.replay(false), 0);
            EXPECT_FALSE(cut.wasRefused()) << call;
            writePages(*device, 6, 1, 1);
            EXPECT_EQ(device->sync(), 0);
            EXPECT_GT(recoverable(*disk), 0u) << "behind a record that is not valid: " << call;
            EXPECT_EQ(device->settle(), 0);
        }
        EXPECT_TRUE(isLogBlank(*disk)) << call;
    }
}

} // namespace
} // namespace tavelin::test
