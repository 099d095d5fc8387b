// What crosses the border between FSKit and the front end: values, and a request's one reply.
#import "extension/double/fskit_double.h"

#include "extension/memory.hpp"
#include "extension/reply.hpp"
#include "extension/values.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>

namespace tavelin::test {

namespace {

TEST(Values, CrossWithEveryField) {
    @autoreleasepool {
        FSItemSetAttributesRequest *asked = made([[FSItemSetAttributesRequest alloc] init]);
        EXPECT_EQ(toCore(asked).validAttributes(), 0u);
        asked.type = FSItemTypeSymlink;
        asked.mode = 1;
        asked.linkCount = 2;
        asked.uid = 3;
        asked.gid = 4;
        asked.flags = 5;
        asked.size = 6;
        asked.allocSize = 7;
        asked.fileID = static_cast<FSItemID>(8);
        asked.parentID = static_cast<FSItemID>(9);
        asked.accessTime = {10, 0};
        asked.modifyTime = {11, 0};
        asked.changeTime = {12, 0};
        asked.birthTime = {13, 0};
        asked.backupTime = {14, 0};
        asked.addedTime = {15, 0};
        FSItemAttributes *told = toFSKit(toCore(asked));
        EXPECT_EQ(told.type, FSItemTypeSymlink);
        int expected = 0;
        for (const auto number :
             {std::uint64_t{told.mode}, std::uint64_t{told.linkCount}, std::uint64_t{told.uid},
              std::uint64_t{told.gid}, std::uint64_t{told.flags}, told.size, told.allocSize,
              static_cast<std::uint64_t>(told.fileID), static_cast<std::uint64_t>(told.parentID)}) {
            EXPECT_EQ(number, static_cast<std::uint64_t>(++expected));
        }
        for (const timespec &time : {told.accessTime, told.modifyTime, told.changeTime,
                                     told.birthTime, told.backupTime, told.addedTime}) {
            EXPECT_EQ(time.tv_sec, ++expected);
        }

        fskit::FSStatFSResult space("tavelin");
        space.blockSize = 1;
        space.ioSize = 2;
        std::uint64_t *const counts[]{
            &space.totalBlocks, &space.availableBlocks, &space.freeBlocks, &space.usedBlocks,
            &space.totalBytes,  &space.availableBytes,  &space.freeBytes,  &space.usedBytes,
            &space.totalFiles,  &space.freeFiles};
        for (std::uint64_t number = 3; std::uint64_t * count : counts) {
            *count = number++;
        }
        FSStatFSResult *statistics = toFSKit(space);
        EXPECT_TRUE(statistics.blockSize == 1 && statistics.ioSize == 2);
        for (std::uint64_t number = 3;
             const std::uint64_t count :
             {statistics.totalBlocks, statistics.availableBlocks, statistics.freeBlocks,
              statistics.usedBlocks, statistics.totalBytes, statistics.availableBytes,
              statistics.freeBytes, statistics.usedBytes, statistics.totalFiles,
              statistics.freeFiles}) {
            EXPECT_EQ(count, number++);
        }
    }
}

TEST(Replies, AnswerExactlyOnceWhateverTheRequestDoes) {
    @autoreleasepool {
        using Arguments = std::tuple<NSNumber *, NSError *>;
        const auto outcome = [](const auto &request) {
            __block int replies = 0;
            __block int code = 0;
            void (^reply)(NSNumber *, NSError *) = ^(NSNumber *, NSError *error) {
                ++replies;
                code = static_cast<int>(error.code);
            };
            serve(reply, request);
            return std::pair(replies, code);
        };
        EXPECT_EQ(outcome([] { return Arguments(@1, nil); }), std::pair(1, 0));
        EXPECT_EQ(outcome([]() -> Arguments { throw std::bad_alloc(); }), std::pair(1, kENOMEM));
        EXPECT_EQ(outcome([]() -> Arguments { throw 1; }), std::pair(1, kEIO));
        EXPECT_EQ(outcome([]() -> Arguments { throw std::runtime_error("broken"); }),
                  std::pair(1, kEIO));
    }
}

} // namespace

} // namespace tavelin::test
