// Holes and clusters ahead of the data, against a string.
#include "core/device_box.hpp"
#include "core/ntfs_volume.hpp"
#include "lab/sample_disk.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace tavelin {
namespace {

using namespace test;

// Walks a file's regions: what is called a hole must be zero.
std::uint64_t bytesOfHoles(NTFSVolume& volume, std::uint64_t ino, const std::string& content) {
    const auto next = [&](std::uint64_t from, bool hole) {
        std::uint64_t found = content.size();
        const std::int32_t error = codeOf([&] { found = volume.seek(ino, from, hole); });
        EXPECT_TRUE(error == 0 || (error == kENXIO && !hole)) << error;
        return found;
    };
    std::uint64_t total = 0;
    for (std::uint64_t at = 0; at < content.size();) {
        const std::uint64_t hole = next(at, true);
        at = hole < content.size() ? next(hole, false) : content.size();
        const auto begin = content.begin() + static_cast<std::ptrdiff_t>(hole);
        const auto end = content.begin() + static_cast<std::ptrdiff_t>(at);
        EXPECT_EQ(std::count(begin, end, '\0'), end - begin) << hole << " to " << at;
        total += at - hole;
    }
    return total;
}

TEST(Allocation, RandomRangesMatchAString) {
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    for (const std::uint32_t clusterSize : {512u, 4096u, 65536u}) {
        const SampleVolume sample({.bytes = 64 << 20, .clusterSize = clusterSize});
        const auto volume = NTFSVolume::open(diskOf(sample), false);
        const std::uint64_t ino = volume->create("file", NTFSVolume::kRootIno, NTFSItemType::file);
        volume->create("next", NTFSVolume::kRootIno, NTFSItemType::file);
        const std::uint64_t other = volume->lookup("next", NTFSVolume::kRootIno);
        const std::uint64_t free = volume->statfs().freeBytes();
        std::string model;
        for (int step = 0; step < 120; ++step) {
            SCOPED_TRACE(step);
            const std::uint64_t place = random() % (random() % 4 == 0 ? 1000000 : 200000);
            const std::uint64_t length = 1 + random() % (random() % 8 == 0 ? 400000 : 20000);
            const std::uint64_t end = place + length;
            switch (const unsigned kind = random() % 8) {
            case 0:
                volume->truncate(ino, place);
                model.resize(place);
                break;
            case 1:
            case 2:
                model.resize(std::max<std::size_t>(model.size(), end));
                model.replace(place, length, length, static_cast<char>('!' + step % 90));
                volume->write(ino, place, bytesOf(model.substr(place, length)));
                break;
            case 3: // beside it, so that runs fall into pieces
                volume->write(other, place, bytesOf(std::string(5000, 'o')));
                volume->freeBehindEnd(ino, place);
                break;
            default: {
                const auto how = static_cast<NTFSAllocation>(kind - 4);
                const auto choice = random() % 5 == 0 ? NTFSAllocation::punchHole : how;
                volume->allocate(ino, place, length, choice);
                const std::size_t old = model.size();
                if (choice == NTFSAllocation::reserve || choice == NTFSAllocation::zero) {
                    model.resize(std::max<std::size_t>(old, end));
                }
                if (choice != NTFSAllocation::reserve &&
                    choice != NTFSAllocation::reserveBehindEnd && place < old) {
                    const std::size_t count = std::min<std::size_t>(length, old - place);
                    model.replace(place, count, count, '\0');
                }
            }
            }
            ASSERT_EQ(textOf(volume->read(ino, 0, model.size() + 1)), model);
            const NTFSAttributes found = volume->attributes(ino);
            EXPECT_EQ(found.size, model.size());
            static_cast<void>(bytesOfHoles(*volume, ino, model));
        }
        volume->allocate(ino, 0, model.size(), NTFSAllocation::zero);
        EXPECT_EQ(bytesOfHoles(*volume, ino, std::string(model.size(), '\0')), 0u);
        volume->allocate(ino, 0, std::uint64_t{1} << 40, NTFSAllocation::punchHole);
        EXPECT_EQ(volume->attributes(ino).allocSize, 0u);
        volume->truncate(other, 0);
        EXPECT_NEAR(static_cast<double>(volume->statfs().freeBytes()), static_cast<double>(free),
                    16384.0);
        volume->unmount();
        EXPECT_EQ(sample.cat("/file"), std::string(model.size(), '\0'));
    }
}

TEST(Allocation, TakesItsSpaceAtOnceOrNotAtAll) {
    const SampleVolume sample;
    const auto volume = NTFSVolume::open(diskOf(sample), false);
    const std::uint64_t ino = volume->create("file", NTFSVolume::kRootIno, NTFSItemType::file);
    volume->write(ino, 0, bytesOf("text"));
    const std::uint64_t free = volume->statfs().freeBytes();
    EXPECT_EQ(codeOf([&] { volume->allocate(ino, 0, free, NTFSAllocation::reserve); }), kENOSPC);
    EXPECT_EQ(volume->statfs().freeBytes(), free);
    EXPECT_EQ(volume->attributes(ino).size, 4u);

    constexpr std::uint64_t kLength = 6 << 20;
    volume->allocate(ino, 0, kLength, NTFSAllocation::reserveBehindEnd);
    EXPECT_EQ(volume->attributes(ino).size, 4u);
    EXPECT_LE(volume->statfs().freeBytes() + kLength, free);
    // The room is the file's: others fill the volume, and it is written to all the same.
    const std::uint64_t other = volume->create("other", NTFSVolume::kRootIno, NTFSItemType::file);
    for (std::uint64_t at = 0;; at += 65536) {
        if (codeOf([&] { volume->write(other, at, bytesOf(std::string(65536, 'x'))); }) != 0) {
            break;
        }
    }
    // Far behind what was written, with clusters before it that are not.
    EXPECT_EQ(volume->write(ino, kLength - 3, bytesOf("end")).count, 3u);
    EXPECT_EQ(textOf(volume->read(ino, 0, kLength)),
              "text" + std::string(kLength - 7, '\0') + "end");
    volume->unmount();
}

TEST(Allocation, GivesBackWhatIsBehindTheEnd) {
    const SampleVolume sample;
    const auto volume = NTFSVolume::open(diskOf(sample), false);
    constexpr std::uint64_t kReserved = 1 << 20;
    for (const std::size_t size : {0, 4, 4096, 100'000}) {
        SCOPED_TRACE(size);
        const std::string text(size, 't');
        const std::uint64_t ino =
            volume->create(std::to_string(size), NTFSVolume::kRootIno, NTFSItemType::file);
        volume->write(ino, 0, bytesOf(text));
        const std::uint64_t free = volume->statfs().freeBytes();
        const auto reserve = [&] {
            volume->allocate(ino, size, kReserved, NTFSAllocation::reserveBehindEnd);
            EXPECT_LT(volume->statfs().freeBytes(), free - kReserved / 2);
        };
        reserve();
        const NTFSAttributes before = volume->attributes(ino);
        volume->truncate(ino, size);
        EXPECT_EQ(volume->statfs().freeBytes() / 4096, free / 4096 - (size == 4 ? 1 : 0));
        EXPECT_TRUE(volume->attributes(ino).modifyTime == before.modifyTime);

        reserve();
        volume->freeBehindEnd(ino, kReserved / 2);
        EXPECT_EQ(volume->attributes(ino).allocSize, kReserved / 2);
        volume->freeBehindEnd(ino, 0);
        EXPECT_LT(volume->attributes(ino).allocSize, size + 4096);
        EXPECT_EQ(textOf(volume->read(ino, 0, size + 1)), text);
    }
    volume->unmount();
}

TEST(Trim, SaysWhyItTellsTheDeviceNothing) {
    const SampleVolume sample({.bytes = 8 << 20});
    const auto open = [&](bool readOnly) {
        const auto device = diskOf(sample);
        device->takesDiscards = false;
        return NTFSVolume::open(device, readOnly);
    };
    const auto mark = [&](std::uint8_t isMarked) {
        DeviceBox box(diskOf(sample));
        const ntb_io io = makeIO(box);
        ASSERT_EQ(ntb_set_dirty(&io, isMarked), 0);
    };
    const struct {
        const char* what;
        NTFSTrimRange range;
        bool readOnly, goesOn;
        std::int32_t error;
        std::uint8_t isMarked = 0;
    } kRows[] = {
        {"a device that has no use for it", {}, false, true, kENOTSUP},
        {"the boot sector alone", {.length = 4096}, false, true, 0},
        {"the same, and told to end", {.length = 4096}, false, false, kEINTR},
        {"behind the end", {.offset = 8 << 20}, false, true, kEINVAL},
        {"less than a cluster", {.length = 100}, false, true, kEINVAL},
        {"longer stretches than it tells of",
         {.minimum = NTFSVolume::kTrimBytesMax + 1},
         false,
         true,
         kEINVAL},
        {"a volume that is only read", {}, true, true, kEROFS},
        {"a volume that is marked", {}, false, true, kEIO, 1},
    };
    for (const auto& row : kRows) {
        mark(row.isMarked);
        const auto volume = open(row.readOnly);
        EXPECT_EQ(codeOf([&] { volume->trim(row.range, [&] { return row.goesOn; }); }), row.error)
            << row.what;
        volume->unmount();
    }
    mark(0);
}

// Their clusters begin and end anywhere in a page.
TEST(Trim, LeavesTheNeighboursOfFreeClustersAsTheyAre) {
    const SampleVolume sample({.bytes = 8 << 20, .clusterSize = 512});
    const auto open = [&] { return NTFSVolume::open(diskOf(sample), false); };
    const auto contentOf = [](int file) {
        return std::string(9 * 512, static_cast<char>('!' + file));
    };
    constexpr int kFiles = 60;
    auto volume = open();
    for (int file = 0; file < kFiles; ++file) {
        const std::uint64_t ino =
            volume->create(std::to_string(file), NTFSVolume::kRootIno, NTFSItemType::file);
        volume->write(ino, 0, bytesOf(contentOf(file)));
    }
    for (int file = 0; file < kFiles; file += 2) {
        volume->remove(std::to_string(file), NTFSVolume::kRootIno);
    }
    EXPECT_GT(volume->trim({}, [] { return true; }), 0u);
    volume->unmount();
    volume = open();
    for (int file = 1; file < kFiles; file += 2) {
        EXPECT_EQ(textOf(volume->read(volume->resolve(std::to_string(file)), 0, 10 * 512)),
                  contentOf(file));
    }
    volume->unmount();
}

} // namespace
} // namespace tavelin
