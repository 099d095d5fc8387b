// A disk for tests of the journal, and what they say of one.
#pragma once

#include "core/device_box.hpp"
#include "core/journal/journaled_device.hpp"
#include "core/ntfs_volume.hpp"
#include "lab/cut.hpp"
#include "lab/sample_disk.hpp"
#include "support/sample_volume.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

namespace tavelin::test {

inline constexpr std::uint64_t kPage = LogFile::kPage;
inline constexpr std::uint64_t kSector = 512;
// Of the first record of a session: those with the dirty flag, of $MFT and of $MFTMirr.
inline constexpr std::uint64_t kFlagPages = 2;

// A disk that notes what reaches it.
inline std::shared_ptr<Disk> diskWith(Bytes content) {
    auto disk = std::make_shared<Disk>(std::move(content));
    disk->isRecording = true;
    return disk;
}

// What a test of writes in their order counts.
inline const std::set<DiskCall> kChanges{DiskCall::write, DiskCall::flush};

// A disk with a formatted volume of its own.
inline std::shared_ptr<Disk> formatted(const VolumeGeometry& geometry) {
    return diskWith(loadImage(SampleVolume(geometry).image()));
}

// An empty volume of 4 MiB, and where things are on it.
struct Volume {
    Volume() {
        DeviceBox box(diskWith(image));
        const ntb_io io = makeIO(box);
        std::uint32_t count = 0;
        EXPECT_EQ(ntb_log_extents(&io, &log, 1, &count), 0);
        work = (log.offset + log.length) / kPage; // what follows $LogFile is free
    }
    const Bytes image = formatted({.bytes = 4u << 20})->bytes;
    ntb_extent log{};
    std::uint64_t work = 0; // a page number
};

inline const Volume& volume() {
    static const Volume once;
    return once;
}

inline constexpr std::uint64_t kRecords = 64u << 10; // where records begin in $LogFile

inline std::byte& logByte(Disk& disk, std::uint64_t offset) {
    return disk.bytes.at(volume().log.offset + offset);
}

inline bool isDirty(const std::shared_ptr<Disk>& disk) {
    DeviceBox box(disk);
    const ntb_io io = makeIO(box);
    std::uint16_t flags = 0;
    EXPECT_EQ(ntb_volume_flags(&io, &flags), 0);
    return (flags & 1u) != 0;
}

inline void setDirty(const std::shared_ptr<Disk>& disk) {
    DeviceBox box(disk);
    const ntb_io io = makeIO(box);
    EXPECT_EQ(ntb_set_dirty(&io, 1), 0);
}

// Whatever was written outside of $LogFile, the dirty flag came first, and stayed.
inline void expectFlagFirst(const Disk& disk, const Bytes& base) {
    const auto seen = diskWith(base);
    for (const DiskEvent& event : disk.events) {
        const bool isLog = event.offset - volume().log.offset < volume().log.length;
        std::copy(event.content.begin(), event.content.end(),
                  seen->bytes.begin() + static_cast<std::ptrdiff_t>(event.offset));
        ASSERT_TRUE(event.flush || isLog || isDirty(seen)) << event.offset;
    }
}

// Each kind, and enough of the random ones that whatever may reach the disk before something else
// does so.
inline const std::vector<Cut>& manyCuts() {
    static const std::vector<Cut> cuts{Cut::prefix,    Cut::torn,      Cut::dropped,
                                       Cut::reordered, Cut::reordered, Cut::reordered,
                                       Cut::reordered, Cut::reordered, Cut::reordered};
    return cuts;
}

inline bool isLogBlank(const Disk& disk) {
    const auto begin = disk.bytes.begin() + static_cast<std::ptrdiff_t>(volume().log.offset);
    return std::all_of(begin, begin + static_cast<std::ptrdiff_t>(volume().log.length),
                       [](std::byte b) { return b == std::byte{0xff}; });
}

inline std::shared_ptr<JournaledDevice> mounted(const std::shared_ptr<Disk>& disk) {
    auto device = std::make_shared<JournaledDevice>(disk);
    EXPECT_EQ(device->replay(false), 0);
    EXPECT_EQ(device->begin(), 0);
    return device;
}

inline Bytes pagesOf(std::uint64_t value, std::uint64_t count) {
    std::vector<std::uint64_t> numbers(count * kPage / sizeof value, value);
    const auto bytes = std::as_bytes(std::span(numbers));
    return {bytes.begin(), bytes.end()};
}

inline std::uint64_t valueAt(const Bytes& image, std::uint64_t offset) {
    std::uint64_t value = 0;
    std::memcpy(&value, &image.at(offset), sizeof value);
    return value;
}

// How many pages a mount would recover from the disk's journal.
inline std::uint64_t recoverable(const Disk& disk) {
    JournaledDevice device(diskWith(disk.bytes));
    EXPECT_EQ(device.replay(true), 0);
    return device.recovered();
}

// Writes pages of `number`s behind the journal, the first one at `page` there.
inline void writePages(JournaledDevice& device, std::uint64_t number, std::uint64_t page,
                       std::uint64_t count) {
    const Bytes content = pagesOf(number, count);
    EXPECT_EQ(device.write(content.data(), (volume().work + page) * kPage, content.size()), 0);
}

// A disk on which a sync of `number`s has reached only the journal.
inline std::shared_ptr<Disk> interrupted(std::uint64_t number) {
    const auto disk = diskWith(volume().image);
    std::fill_n(&disk->bytes.at(volume().work * kPage), 3 * kPage, std::byte{0x11});
    const auto device = mounted(disk);
    writePages(*device, number, 0, 3);
    disk->fail(3, 3, EIO, kChanges); // the record, the device's sync, the pages
    EXPECT_EQ(device->sync(), EIO);
    return disk;
}

inline std::shared_ptr<NTFSVolume> opened(const std::shared_ptr<JournaledDevice>& device) {
    EXPECT_EQ(device->replay(false), 0);
    auto ntfs = NTFSVolume::open(device, false);
    ntfs->sync();
    EXPECT_EQ(device->begin(), 0);
    return ntfs;
}

} // namespace tavelin::test
