#include "NTFSBridge/block_io.hpp"
#include "support/memory_io.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <numeric>

namespace tavelin::test {
namespace {

using Kind = MemoryIo::Kind;
using Calls = std::vector<MemoryIo::Call>;

std::vector<uint8_t> pattern(uint64_t size) {
    std::vector<uint8_t> bytes(size);
    for (uint64_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<uint8_t>(i * 31 + i / 256);
    }
    return bytes;
}

struct Transfer {
    const char* what;
    uint32_t blockSize;
    uint64_t deviceSize;
    uint64_t offset;
    uint64_t length;
    int32_t result;
    uint64_t moved; // bytes that arrive
    bool isBounced;
    Calls calls;
};

TEST(BlockIo, ReadsAnyRangeThroughWholeBlocks) {
    const Transfer cases[] = {
        {"nothing", 512, 4096, 9999, 0, 0, 0, false, {}},
        {"byte-addressable, 0", 0, 4096, 3, 5, 0, 5, false, {{Kind::kRead, 3, 5}}},
        {"byte-addressable, 1", 1, 4096, 3, 5, 0, 5, false, {{Kind::kRead, 3, 5}}},
        {"aligned", 512, 4096, 512, 1024, 0, 1024, false, {{Kind::kRead, 512, 1024}}},
        {"inside a block", 512, 4096, 700, 10, 0, 10, true, {{Kind::kRead, 512, 512}}},
        {"across blocks", 512, 4096, 1000, 100, 0, 100, true, {{Kind::kRead, 512, 1024}}},
        {"cut at the end", 512, 4096, 4000, 500, 0, 96, true, {{Kind::kRead, 3584, 512}}},
        {"cut, then aligned", 512, 4096, 3584, 9999, 0, 512, false, {{Kind::kRead, 3584, 512}}},
        {"tail of no whole block", 512, 4000, 3990, 50, 0, 10, true, {{Kind::kRead, 3584, 416}}},
        {"from the end on", 512, 4096, 4096, 1, EIO, 0, false, {}},
        {"far past the end", 512, 4096, UINT64_MAX, 2, EIO, 0, false, {}},
    };
    for (const Transfer& c : cases) {
        SCOPED_TRACE(c.what);
        MemoryIo device(pattern(c.deviceSize), c.blockSize);
        ntb_stats stats = {};
        std::vector<uint8_t> buffer(c.length, 0xEE);
        EXPECT_EQ(ntb::io_read(device.io(), &stats, buffer.data(), c.offset, c.length), c.result);
        EXPECT_EQ(device.takeLog(), c.calls);
        for (uint64_t i = 0; i < c.length; ++i) {
            ASSERT_EQ(buffer[i], i < c.moved ? device.bytes()[c.offset + i] : 0xEE) << i;
        }
        EXPECT_EQ(stats.deviceReads, c.calls.size());
        EXPECT_EQ(stats.readBytes, c.moved);
        EXPECT_EQ(stats.unalignedOps, c.isBounced ? 1u : 0u);
    }
}

TEST(BlockIo, WritesAnyRangeAndKeepsWhatLiesAround) {
    const Transfer cases[] = {
        {"nothing", 512, 4096, 9999, 0, 0, 0, false, {}},
        {"byte-addressable", 0, 4096, 3, 5, 0, 5, false, {{Kind::kWrite, 3, 5}}},
        {"aligned", 512, 4096, 512, 1024, 0, 1024, false, {{Kind::kWrite, 512, 1024}}},
        {"across blocks",
         512,
         4096,
         1000,
         100,
         0,
         100,
         true,
         {{Kind::kRead, 512, 512}, {Kind::kRead, 1024, 512}, {Kind::kWrite, 512, 1024}}},
        {"aligned start",
         512,
         4096,
         1024,
         600,
         0,
         600,
         true,
         {{Kind::kRead, 1536, 512}, {Kind::kWrite, 1024, 1024}}},
        {"aligned end",
         512,
         4096,
         1000,
         536,
         0,
         536,
         true,
         {{Kind::kRead, 512, 512}, {Kind::kWrite, 512, 1024}}},
        {"over the end", 512, 4096, 4000, 97, ENOSPC, 0, false, {}},
        {"far past the end", 512, 4096, UINT64_MAX, 2, ENOSPC, 0, false, {}},
    };
    for (const Transfer& c : cases) {
        SCOPED_TRACE(c.what);
        MemoryIo device(pattern(c.deviceSize), c.blockSize);
        std::vector<uint8_t> expected = device.bytes();
        std::fill_n(expected.begin() + static_cast<ptrdiff_t>(c.moved == 0 ? 0 : c.offset), c.moved,
                    0xEE);
        const std::vector<uint8_t> buffer(c.length, 0xEE);
        ntb_stats stats = {};
        EXPECT_EQ(ntb::io_write(device.io(), &stats, buffer.data(), c.offset, c.length), c.result);
        EXPECT_EQ(device.takeLog(), c.calls);
        EXPECT_EQ(device.bytes(), expected);
        EXPECT_EQ(stats.deviceReads, 0u) << "reads of edge blocks are part of the write";
        EXPECT_EQ(stats.deviceWrites, c.moved == 0 ? 0u : 1u);
        EXPECT_EQ(stats.writeBytes, c.moved);
        EXPECT_EQ(stats.unalignedOps, c.isBounced ? 1u : 0u);
        for (uint64_t call = 1; call <= c.calls.size(); ++call) {
            const std::vector<uint8_t> before = device.bytes();
            device.fail(call, call, ENXIO);
            EXPECT_EQ(ntb::io_write(device.io(), nullptr, buffer.data(), c.offset, c.length),
                      ENXIO);
            EXPECT_EQ(device.bytes(), before);
        }
    }
}

} // namespace
} // namespace tavelin::test
