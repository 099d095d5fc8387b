#include "NTFSBridge/device/devctx.hpp"
#include "NTFSBridge/device/free_watch.hpp"
#include "NTFSBridge/device/page_cache.hpp"
#include "lab/disk_io.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <random>

namespace tavelin::test {
namespace {

using Kind = DiskCall;
using Calls = std::vector<DiskRequest>;

constexpr uint64_t kPage = ntb::page_cache::page_size;
constexpr uint64_t kSets = ntb::page_cache::full_set_count;

// A device with the cache in front of it.
struct CachedDevice {
    explicit CachedDevice(uint64_t size, uint32_t blockSize = 512)
        : memory(takingFileData(size, blockSize)), context(memory.io(), false, stats) {
        EXPECT_TRUE(context.cache.enable());
    }
    static DiskIo takingFileData(uint64_t size, uint32_t blockSize) {
        DiskIo made(std::vector<uint8_t>(size), blockSize);
        made.takeFileData();
        return made;
    }

    int32_t fill(uint64_t offset, uint64_t count, uint8_t value) {
        const std::vector<uint8_t> bytes(count, value);
        return context.write(bytes.data(), count, offset);
    }
    uint8_t byteAt(uint64_t offset) {
        uint8_t value = 0xFF;
        EXPECT_EQ(context.read(&value, 1, offset), 0);
        return value;
    }

    DiskIo memory;
    ntb_stats stats = {};
    ntb::ntb_devctx context;
};

TEST(PageCache, TheLeastRecentlyUsedOfNineGivesWay) {
    CachedDevice device(16 * kSets * kPage);
    for (uint64_t way = 0; way < 8; ++way) {
        ASSERT_EQ(device.fill(way * kSets * kPage, kPage, static_cast<uint8_t>(way + 1)), 0);
    }
    EXPECT_EQ(device.byteAt(0), 1); // page 0 is now younger than page 1024
    EXPECT_TRUE(device.memory.takeLog().empty());

    ASSERT_EQ(device.fill(8 * kSets * kPage, kPage, 9), 0);
    EXPECT_EQ(device.memory.takeLog(), (Calls{{Kind::write, kSets * kPage, kPage}}));
    EXPECT_EQ(device.context.cache.dirty_count(), 8u);
    EXPECT_NE(device.context.cache.pc_find(0), nullptr);
    EXPECT_EQ(device.context.cache.pc_find(kSets), nullptr);
    EXPECT_TRUE(device.context.cache.is_consistent());
}

TEST(PageCache, AVictimThatCannotBeWrittenStaysAndTheNewPageGoesThrough) {
    CachedDevice device(16 * kSets * kPage);
    for (uint64_t way = 0; way < 8; ++way) {
        ASSERT_EQ(device.fill(way * kSets * kPage, kPage, static_cast<uint8_t>(way + 1)), 0);
    }
    device.context.cache.populate(); // changes nothing
    device.memory.fail(1, 1, EIO);   // the write-back; the write-through after it works
    ASSERT_EQ(device.fill(8 * kSets * kPage, kPage, 9), 0);
    EXPECT_EQ(device.memory.bytes[8 * kSets * kPage], 9);
    EXPECT_EQ(device.context.cache.dirty_count(), 8u);
    device.memory.fail(2, 2, EIO); // a read fetches, then fails to evict: it answers uncached
    EXPECT_EQ(device.byteAt(9 * kSets * kPage), 0);
    EXPECT_EQ(device.byteAt(0), 1);
    EXPECT_TRUE(device.context.cache.is_consistent());
    ASSERT_EQ(device.context.flush(), 0);
    for (uint64_t way = 0; way < 9; ++way) {
        EXPECT_EQ(device.memory.bytes[way * kSets * kPage + kPage - 1], way + 1);
    }
}

TEST(PageCache, WritesFileDataApartUntilThePageIsWrittenAgain) {
    CachedDevice device(64 * kPage);
    ASSERT_EQ(device.fill(0, 8 * kPage, 1), 0);
    // Only whole pages: the ends may be another's.
    device.context.mark_file_data(5 * kPage + 2, 2 * kPage - 1);
    device.context.mark_file_data(2 * kPage, 20 * kPage); // not cached
    ASSERT_EQ(device.fill(4 * kPage + 9, 3, 2), 0);
    EXPECT_EQ(device.context.cache.file_data_count(), 4u);
    ASSERT_EQ(device.context.flush(), 0);
    EXPECT_EQ(device.context.cache.file_data_count(), 0u);
    EXPECT_EQ(device.memory.takeLog(), (Calls{{Kind::write, 0, 2 * kPage},
                                              {Kind::fileData, 2 * kPage, 2 * kPage},
                                              {Kind::write, 4 * kPage, kPage},
                                              {Kind::fileData, 5 * kPage, 2 * kPage},
                                              {Kind::write, 7 * kPage, kPage}}));
    EXPECT_EQ(device.stats.deviceWrites, 5u);
    device.context.mark_file_data(kPage, 0); // is clean, and metadata when it is written again
    ASSERT_EQ(device.fill(0, kPage, 3), 0);
    ASSERT_EQ(device.context.flush(), 0);
    EXPECT_EQ(device.memory.takeLog(), (Calls{{Kind::write, 0, kPage}}));
}

// Twelve pages of one set, which has room for eight, so that changed pages are evicted in between.
TEST(UndoLog, PutsBackWhatAnOperationChanged) {
    constexpr uint64_t kPages = 12;
    CachedDevice device(kPages * kSets * kPage);
    std::mt19937 random(1);
    for (int operation = 0; operation < 50; ++operation) {
        std::vector<std::vector<uint8_t>> before(kPages, std::vector<uint8_t>(kPage));
        for (uint64_t page = 0; page < kPages; ++page) {
            ASSERT_EQ(device.context.read(before[page].data(), kPage, page * kSets * kPage), 0);
        }
        device.context.undo.begin();
        for (int change = 0; change < 3 * operation; ++change) {
            const uint64_t page = random() % kPages;
            const bool isWhole = random() % 2 == 0;
            const uint64_t from = isWhole ? 0 : random() % kPage;
            const uint64_t count = isWhole ? kPage : 1 + random() % (kPage - from);
            device.byteAt(page * kSets * kPage); // what is overwritten unread is not kept
            ASSERT_EQ(device.fill(page * kSets * kPage + from, count,
                                  static_cast<uint8_t>(operation + change)),
                      0);
        }
        ASSERT_TRUE(device.context.undo.is_complete());
        ASSERT_EQ(device.context.undo.restore(device.memory.io(), device.stats), 0);
        device.context.undo.end();
        for (uint64_t page = 0; page < kPages; ++page) {
            std::vector<uint8_t> after(kPage);
            ASSERT_EQ(device.context.read(after.data(), kPage, page * kSets * kPage), 0);
            ASSERT_EQ(after, before[page]) << "page " << page << ", operation " << operation;
        }
        ASSERT_TRUE(device.context.cache.is_consistent());
        // The next operation begins with other bytes.
        ASSERT_EQ(device.fill(random() % kPages * kSets * kPage, kPage, 99), 0);
    }
    device.context.undo.begin();
    ASSERT_EQ(device.fill(kPage, kPage, 1), 0); // was not cached
    ASSERT_EQ(device.context.undo.restore(device.memory.io(), device.stats), 0);
    device.context.undo.end();
    EXPECT_EQ(device.byteAt(kPage), 0);
}

TEST(PageCache, FlushesInPageOrderAndInRunsOfUpToOneMebibyte) {
    CachedDevice device(64ull << 20);
    for (uint64_t page = 300; page-- > 0;) {
        ASSERT_EQ(device.fill((2000 + page) * kPage, kPage, 7), 0);
    }
    ASSERT_EQ(device.fill(5 * kPage, 2 * kPage, 7), 0);
    ASSERT_EQ(device.fill(10 * kPage, kPage, 7), 0);
    device.memory.takeLog();

    ASSERT_EQ(device.context.cache.pc_flush_pages(2, 5), 0);
    ASSERT_EQ(device.context.cache.pc_flush_pages(6, 9), 0);
    EXPECT_EQ(device.memory.takeLog(),
              (Calls{{Kind::write, 5 * kPage, kPage}, {Kind::write, 6 * kPage, kPage}}));
    ASSERT_EQ(device.context.cache.pc_flush_pages(20, 1999), 0);
    EXPECT_TRUE(device.memory.takeLog().empty());

    device.memory.fail(3, 3, ENXIO); // the second run of the 300 pages
    EXPECT_EQ(device.context.flush(), ENXIO);
    EXPECT_EQ(device.stats.dirtyPages, 44u);
    ASSERT_EQ(device.context.flush(), 0);
    EXPECT_EQ(device.memory.takeLog(), (Calls{{Kind::write, 10 * kPage, kPage},
                                              {Kind::write, 2000 * kPage, 256 * kPage},
                                              {Kind::write, 2256 * kPage, 44 * kPage},
                                              {Kind::write, 2256 * kPage, 44 * kPage}}));
    EXPECT_EQ(device.stats.dirtyPages, 0u);
    ASSERT_EQ(device.context.flush(), 0);
    EXPECT_TRUE(device.memory.takeLog().empty());
}

TEST(PageCache, MoreThanHalfDirtyFlushesEverything) {
    CachedDevice device(64ull << 20);
    device.context.undo.begin();
    for (uint64_t page = 0; page < 4096; ++page) {
        ASSERT_EQ(device.fill(page * kPage, kPage, 1), 0);
    }
    EXPECT_TRUE(device.context.undo.is_complete());
    EXPECT_EQ(device.context.cache.dirty_count(), 4096u);
    EXPECT_TRUE(device.memory.takeLog().empty());
    device.memory.failFrom(1, EIO);
    EXPECT_EQ(device.fill(5000 * kPage, kPage, 1), EIO);
    device.memory.heal();
    ASSERT_EQ(device.fill(5000 * kPage, kPage, 1), 0);
    EXPECT_EQ(device.context.cache.dirty_count(), 0u);
    EXPECT_EQ(device.stats.dirtyPages, 4097u) << "the counter is a snapshot of the write";
    EXPECT_FALSE(device.context.undo.is_complete());
    device.context.undo.end();
}

TEST(PageCache, WhatIsCachedAndWhatGoesToTheDevice) {
    const struct {
        const char* what;
        uint32_t blockSize;
        uint64_t deviceSize;
        uint64_t offset;
        uint64_t length;
        bool isCached;
    } cases[] = {
        {"one page", 512, 1 << 20, 0, kPage, true},
        {"ten bytes across pages", 512, 1 << 20, 4090, 10, true},
        {"64 KiB", 512, 1 << 20, 100, 65536, true},
        {"over 64 KiB", 512, 1 << 20, 0, 65537, false},
        {"byte-addressable", 0, 1 << 20, 4090, 10, true},
        {"block of a page", 4096, 1 << 20, 4090, 10, true},
        {"block over a page", 8192, 1 << 20, 4090, 10, false},
        {"block that divides no page", 1536, 1536 * 64, 10, 10, false},
        {"partial last page", 512, 3 * kPage + 512, 3 * kPage, 100, false},
        {"reaching into it", 512, 3 * kPage + 512, 3 * kPage - 10, 20, false},
        {"last whole page", 512, 3 * kPage + 512, 3 * kPage - 10, 10, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        CachedDevice device(c.deviceSize, c.blockSize);
        ASSERT_EQ(device.fill(c.offset, c.length, 3), 0);
        EXPECT_EQ(device.context.cache.dirty_count() != 0, c.isCached);
        EXPECT_EQ(device.memory.bytes[c.offset], c.isCached ? 0 : 3);
        std::vector<uint8_t> back(c.length);
        ASSERT_EQ(device.context.read(back.data(), c.length, c.offset), 0);
        EXPECT_EQ(back, std::vector<uint8_t>(c.length, 3));
        EXPECT_EQ(device.stats.cacheHits != 0, c.isCached);
        ASSERT_EQ(device.context.flush(), 0);
        EXPECT_EQ(device.memory.bytes[c.offset + c.length - 1], 3);
        EXPECT_EQ(device.fill(c.deviceSize - 4, 5, 1), ENOSPC);
    }
}

TEST(PageCache, ForgetsWhatAFailedWriteAroundItMayHaveChanged) {
    CachedDevice device(1u << 20);
    ASSERT_EQ(device.fill(kPage, 2 * kPage, 1), 0);
    ASSERT_EQ(device.context.flush(), 0);
    device.memory.fail(1, 1, EIO);
    EXPECT_EQ(device.fill(0, NTB_CACHED_BYTES_MAX + kPage, 2), EIO);
    device.memory.bytes[kPage] = 2; // as far as the write had come
    EXPECT_EQ(device.byteAt(kPage), 2);
    ASSERT_EQ(device.fill(2 * kPage, 1, 3), 0);
    ASSERT_EQ(device.context.flush(), 0);
    EXPECT_EQ(device.memory.bytes[2 * kPage + 1], 1);
    EXPECT_TRUE(device.context.cache.is_consistent());
}

TEST(PageCache, CountsAndFetchesRunsOfMissingPages) {
    CachedDevice device(1 << 20);
    EXPECT_EQ(device.byteAt(2 * kPage), 0);
    device.memory.takeLog();
    std::vector<uint8_t> buffer(6 * kPage);
    ASSERT_EQ(device.context.read(buffer.data(), buffer.size(), 100), 0);
    EXPECT_EQ(device.memory.takeLog(),
              (Calls{{Kind::read, 0, 2 * kPage}, {Kind::read, 3 * kPage, 4 * kPage}}));
    EXPECT_EQ(device.stats.cacheMisses, 7u);
    EXPECT_EQ(device.stats.cacheHits, 1u);
    ASSERT_EQ(device.fill(20 * kPage - 1, kPage + 2, 1), 0); // only the two edges are read
    EXPECT_EQ(device.memory.takeLog(),
              (Calls{{Kind::read, 19 * kPage, kPage}, {Kind::read, 21 * kPage, kPage}}));
    EXPECT_EQ(device.stats.cacheMisses, 9u);
    EXPECT_EQ(device.stats.dirtyPages, 3u);
}

TEST(FreeWatch, SeesEveryBitThatIsCleared) {
    for (const size_t at : {0, 9, 18}) { // in words, and in what is left behind them
        ntb::free_watch bitmap;
        bitmap.watch({{.offset = 100, .length = 19}});
        const std::vector<uint8_t> before(19, 0x0f);
        std::vector<uint8_t> after = before;
        after[at] = 0xff;
        bitmap.see_change(100, before.data(), after.data(), after.size());
        EXPECT_FALSE(bitmap.has_seen());
        after[at] = 0x07;
        bitmap.see_change(100, before.data(), after.data(), after.size());
        EXPECT_TRUE(bitmap.has_seen()) << at;
    }
}

// Random reads, writes, flushes and device failures against a plain byte array.
TEST(PageCache, BehavesLikeTheDeviceItself) {
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE(seed);
    std::mt19937_64 random(seed);
    const auto below = [&](uint64_t limit) { return random() % limit; };
    for (const uint32_t blockSize : {0u, 512u, 4096u, 8192u}) {
        const uint64_t size = 12 * kSets * kPage + (blockSize <= 512 ? 1536 : 0);
        CachedDevice device(size, blockSize);
        std::vector<uint8_t> model(size);
        std::vector<uint8_t> buffer;
        for (int step = 0; step < 3000; ++step) {
            // Few sets and many pages in each, so that pages keep driving each other out.
            const uint64_t offset =
                std::min(below(13) * kSets * kPage + below(24 * kPage), size - 1);
            const uint64_t longest = below(20) == 0 ? 200000 : 3 * kPage;
            const uint64_t count = 1 + below(std::min(longest, size - offset));
            buffer.assign(count, static_cast<uint8_t>(step));
            if (below(8) == 0) {
                device.memory.fail(1 + below(3), 1 + below(6), EIO);
            }
            const bool isWrite = below(2) == 0;
            const auto work = [&] {
                return isWrite ? device.context.write(buffer.data(), count, offset)
                               : device.context.read(buffer.data(), count, offset);
            };
            if (work() != 0) {
                device.memory.heal();
                ASSERT_EQ(work(), 0) << "a failure must not outlive its cause";
            }
            device.memory.heal();
            const auto place = model.begin() + static_cast<ptrdiff_t>(offset);
            if (isWrite) {
                std::copy(buffer.begin(), buffer.end(), place);
            } else {
                ASSERT_TRUE(std::equal(buffer.begin(), buffer.end(), place)) << step;
            }
            if (below(200) == 0) {
                ASSERT_EQ(device.context.flush(), 0);
                ASSERT_TRUE(device.memory.bytes == model) << step;
            }
        }
        EXPECT_TRUE(device.context.cache.is_consistent());
        ASSERT_EQ(device.context.flush(), 0);
        EXPECT_TRUE(device.memory.bytes == model);
        EXPECT_EQ(device.memory.violations(), 0u);
    }
}

} // namespace
} // namespace tavelin::test
