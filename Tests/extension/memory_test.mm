// How much memory a volume takes that is being looked through: that of what is open, whatever was
// listed before. The guide has the figures of a large tree; with TAVELIN_WRITE in the environment
// they are measured and printed, for script/request-table.
#import "extension/double/daemon.h"

#include "core/file_block_device.hpp"
#include "core/ntfs_volume.hpp"
#include "support/own_group.hpp"
#include "support/replaced_services.hpp"
#include "support/sample_volume.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <malloc.h>
#include <unistd.h>

namespace tavelin::test {

namespace {

constexpr std::size_t kBaseMax = 64 << 20;
constexpr std::size_t kOpenEntryMax = 200;
// In a tree too small to come near the limit: what an item takes here, where objects are larger
// than on a Mac, and what may be left of one that was listed.
constexpr std::size_t kItemMax = 280;
constexpr std::size_t kListedEntryMax = 16;
constexpr std::size_t kEntriesOfAPage = 300;
constexpr int kInEach = 100; // directories in a directory; each of these has two files

// Makes `outer` directories in the root, and all that is in them.
void makeTree(const SampleVolume &sample, int outer) {
    const auto volume = NTFSVolume::open(std::make_shared<FileBlockDevice>(sample.image()), false);
    const auto make = [&](int name, std::uint64_t parent, NTFSItemType type) {
        return volume->create(std::to_string(1000 + name), parent, type);
    };
    for (int i = 0; i < outer; ++i) {
        const std::uint64_t directory = make(i, NTFSVolume::kRootIno, NTFSItemType::directory);
        for (int j = 0; j < kInEach; ++j) {
            const std::uint64_t inner = make(j, directory, NTFSItemType::directory);
            make(0, inner, NTFSItemType::file);
            make(1, inner, NTFSItemType::file);
        }
    }
    volume->unmount();
}

std::size_t residentBytes() {
    ::malloc_trim(0); // what tests before this one have freed
    std::size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages >> pages;
    return pages * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

// Looks through a directory and those in it, as a program that walks a tree does. Gives each item
// back when it is done with it, or keeps all of them in use. Answers how many entries there were.
std::size_t walk(Daemon &daemon, FSItem *directory, bool keepsOpen) {
    const std::vector<std::string> names = daemon.list(directory, kEntriesOfAPage, true);
    std::size_t count = names.size();
    for (const std::string &name : names) {
        @autoreleasepool {
            const Answer found = daemon.lookup(directory, name);
            EXPECT_TRUE(found.ok());
            if (daemon.getAttributes(found.item()).attributes().type == FSItemTypeDirectory) {
                count += walk(daemon, found.item(), keepsOpen);
            }
            if (!keepsOpen) {
                EXPECT_TRUE(daemon.reclaim(found.item()).ok());
            }
        }
    }
    return count;
}

TEST(Memory, IsThatOfWhatIsOpen) {
    const bool writes = std::getenv("TAVELIN_WRITE") != nullptr;
    const ReplacedServices services;
    const SampleVolume sample({.bytes = 256 << 20});
    makeTree(sample, writes ? 200 : 10);
    @autoreleasepool {
        Daemon daemon(Release::k26_0);
        const std::size_t before = residentBytes();
        daemon.bringUp([ImageResource resourceWithImage:sample.image() writable:YES]);
        const std::size_t entries = walk(daemon, daemon.root(), false);
        const std::size_t once = residentBytes() - before;
        EXPECT_EQ(walk(daemon, daemon.root(), false), entries);
        const std::size_t listed = residentBytes() - before;
        EXPECT_LE(listed, std::min(kBaseMax, once + entries * kListedEntryMax));
        EXPECT_EQ(walk(daemon, daemon.root(), true), entries);
        const std::size_t open = residentBytes() - before;
        EXPECT_LE(open, kBaseMax + entries * kOpenEntryMax);
        EXPECT_LE(open, listed + entries * kItemMax);
        static_cast<void>(daemon.abandon());
        if (writes) {
            const auto mebibytes = [](std::size_t bytes) {
                return std::to_string((bytes + (1 << 19)) >> 20) + " MiB";
            };
            std::puts(("| 20,200 directories and 40,000 files | " + mebibytes(listed) + " | " +
                       mebibytes(open) + " | " + mebibytes(kBaseMax + entries * kOpenEntryMax) +
                       " |")
                          .c_str());
            EXPECT_EQ(entries, 60'200u);
        }
    }
}

} // namespace

} // namespace tavelin::test
