#include "NTFSBridge/device/block_io.hpp"
#include "lab/disk_io.hpp"

#include <gtest/gtest.h>

#include <cerrno>

namespace tavelin::test {
namespace {

using Kind = DiskCall;
using Calls = std::vector<DiskRequest>;

constexpr uint8_t kCallers = 0xEE; // in the caller's buffer

struct Transfer {
    const char* what;
    uint32_t blockSize;
    uint64_t deviceSize;
    uint64_t offset;
    uint64_t length;
    int32_t result;
    uint64_t moved; // bytes that arrive
    Calls calls;
};

uint8_t deviceByte(uint64_t offset) {
    return static_cast<uint8_t>(offset * 31 % 0xEE);
}

struct Device : DiskIo {
    Device(uint64_t size, uint32_t blockSize) : DiskIo(std::vector<uint8_t>(size), blockSize) {
        for (uint64_t i = 0; i < size; ++i) {
            bytes[i] = deviceByte(i);
        }
    }
};

void expectCounted(const Transfer& c, uint64_t calls, uint64_t bytes, const ntb_stats& stats) {
    const bool isBounced = c.moved != 0 && c.blockSize > 1 &&
                           (c.offset % c.blockSize != 0 || c.moved % c.blockSize != 0);
    EXPECT_EQ(calls, c.moved == 0 ? 0u : 1u);
    EXPECT_EQ(bytes, c.moved);
    EXPECT_EQ(stats.unalignedOps, isBounced ? 1u : 0u);
}

TEST(BlockIo, ReadsAnyRangeThroughWholeBlocks) {
    const Transfer cases[] = {
        {"nothing", 512, 4096, 9999, 0, 0, 0, {}},
        {"byte-addressable, 0", 0, 4096, 3, 5, 0, 5, {{Kind::read, 3, 5}}},
        {"byte-addressable, 1", 1, 4096, 3, 5, 0, 5, {{Kind::read, 3, 5}}},
        {"aligned", 512, 4096, 512, 1024, 0, 1024, {{Kind::read, 512, 1024}}},
        {"across blocks", 512, 4096, 1000, 100, 0, 100, {{Kind::read, 512, 1024}}},
        {"cut at the end", 512, 4096, 4000, 500, 0, 96, {{Kind::read, 3584, 512}}},
        {"cut, then aligned", 512, 4096, 3584, 9999, 0, 512, {{Kind::read, 3584, 512}}},
        {"tail of no whole block", 512, 4000, 3990, 50, 0, 10, {{Kind::read, 3584, 416}}},
        {"from the end on", 512, 4096, 4096, 1, EIO, 0, {}},
        {"far past the end", 512, 4096, UINT64_MAX, 2, EIO, 0, {}},
    };
    for (const Transfer& c : cases) {
        SCOPED_TRACE(c.what);
        Device device(c.deviceSize, c.blockSize);
        ntb_stats stats = {};
        std::vector<uint8_t> buffer(c.length, kCallers);
        EXPECT_EQ(ntb::io_read(device.io(), &stats, buffer.data(), c.offset, c.length), c.result);
        EXPECT_EQ(device.takeLog(), c.calls);
        for (uint64_t i = 0; i < c.length; ++i) {
            ASSERT_EQ(buffer[i], i < c.moved ? deviceByte(c.offset + i) : kCallers) << i;
        }
        expectCounted(c, stats.deviceReads, stats.readBytes, stats);
    }
}

TEST(BlockIo, WritesAnyRangeAndKeepsWhatLiesAround) {
    const Calls both = {{Kind::read, 512, 512}, {Kind::read, 1024, 512}, {Kind::write, 512, 1024}};
    const Transfer cases[] = {
        {"nothing", 512, 4096, 9999, 0, 0, 0, {}},
        {"byte-addressable", 0, 4096, 3, 5, 0, 5, {{Kind::write, 3, 5}}},
        {"aligned", 512, 4096, 512, 1024, 0, 1024, {{Kind::write, 512, 1024}}},
        {"across blocks", 512, 4096, 1000, 100, 0, 100, both},
        {"aligned start", 512, 4096, 512, 600, 0, 600, {both[1], both[2]}},
        {"aligned end", 512, 4096, 1000, 536, 0, 536, {both[0], both[2]}},
        {"over the end", 512, 4096, 4000, 97, ENOSPC, 0, {}},
        {"far past the end", 512, 4096, UINT64_MAX, 2, ENOSPC, 0, {}},
    };
    for (const Transfer& c : cases) {
        SCOPED_TRACE(c.what);
        Device device(c.deviceSize, c.blockSize);
        const std::vector<uint8_t> before = device.bytes;
        const std::vector<uint8_t> buffer(c.length, kCallers);
        const auto write = [&](ntb_stats* stats) {
            return ntb::io_write(device.io(), stats, buffer.data(), c.offset, c.length);
        };
        for (uint64_t call = 1; call <= c.calls.size(); ++call) {
            device.fail(call, call, ENXIO);
            EXPECT_EQ(write(nullptr), ENXIO);
            EXPECT_EQ(device.bytes, before);
            device.takeLog();
        }
        ntb_stats stats = {};
        EXPECT_EQ(write(&stats), c.result);
        EXPECT_EQ(device.takeLog(), c.calls);
        for (uint64_t i = 0; i < c.deviceSize; ++i) {
            const bool isWritten = c.moved != 0 && i >= c.offset && i < c.offset + c.moved;
            ASSERT_EQ(device.bytes[i], isWritten ? kCallers : before[i]) << i;
        }
        expectCounted(c, stats.deviceWrites, stats.writeBytes, stats);
        EXPECT_EQ(stats.deviceReads, 0u) << "reads of edge blocks are part of the write";
    }
}

} // namespace
} // namespace tavelin::test
