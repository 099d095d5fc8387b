// A disk for tests of the journal, and what they say of one.
#pragma once

#include "core/device_box.hpp"
#include "core/journal/journaled_device.hpp"
#include "core/ntfs_volume.hpp"
#include "lab/recording_resource.hpp"
#include "support/sample_volume.hpp"
#include "support/watched_device.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

namespace tavelin::test {

inline constexpr std::uint64_t kPage = LogFile::kPage;
inline constexpr std::uint64_t kSector = 512;
// Of the first record of a session: those with the dirty flag, of $MFT and of $MFTMirr.
inline constexpr std::uint64_t kFlagPages = 2;

// A disk that notes what reaches it, and fails on demand.
class Disk final : public BlockDevice {
  public:
    explicit Disk(Bytes content) : image(std::move(content)) {}

    std::uint64_t size() const noexcept override { return image.size(); }
    std::uint32_t blockSize() const noexcept override { return blockBytes; }
    std::int32_t read(std::byte* to, std::uint64_t offset, std::uint64_t length) noexcept override {
        std::memcpy(to, &image.at(offset), length);
        const bool isLost = lost.lower_bound(offset / kSector) != lost.end() &&
                            *lost.lower_bound(offset / kSector) * kSector < offset + length;
        return isLost ? EIO : failsReads ? trouble() : 0;
    }
    std::int32_t write(const std::byte* from, std::uint64_t offset,
                       std::uint64_t length) noexcept override {
        const std::int32_t error = trouble();
        for (std::uint64_t at = offset; at < offset + length; at += kSector) {
            if (unwritable.contains(at / kSector)) {
                return EIO;
            }
            if (lost.contains(at / kSector) && !isHealing) {
                return EIO;
            }
            lost.erase(at / kSector);
        }
        if (error == 0) {
            std::memcpy(&image.at(offset), from, length);
            events.push_back({false, offset, Bytes(from, from + length)});
        }
        return error;
    }
    std::int32_t discard(std::uint64_t offset, std::uint64_t length) noexcept override {
        std::memset(&image.at(offset), 0xdd, length);
        return 0;
    }
    std::int32_t sync() noexcept override {
        const std::int32_t error = isSyncFailing ? EIO : trouble();
        if (error == 0) {
            events.push_back({true, 0, {}});
        }
        return error;
    }

    Backlog backlog() const noexcept override { return {0, room}; }

    Bytes image;
    std::uint32_t blockBytes = kSector;
    std::vector<DiskEvent> events;
    std::uint64_t room = 0;
    std::uint64_t callsToFailure = 0; // 1: the next call fails, once; 0: none
    bool failsReads = true;           // whether reads are among these calls
    bool isSyncFailing = false;
    std::set<std::uint64_t> lost;       // sectors that cannot be read
    bool isHealing = true;              // until they are written
    std::set<std::uint64_t> unwritable; // sectors that can be read

  private:
    std::int32_t trouble() noexcept {
        return callsToFailure > 0 && --callsToFailure == 0 ? EIO : 0;
    }
};

// A disk with a formatted volume of its own.
inline std::shared_ptr<Disk> formatted(const VolumeGeometry& geometry) {
    return std::make_shared<Disk>(loadImage(SampleVolume(geometry).image()));
}

// An empty volume of 4 MiB, and where things are on it.
struct Volume {
    Volume() {
        DeviceBox box(std::make_shared<Disk>(image));
        const ntb_io io = makeIO(box);
        std::uint32_t count = 0;
        EXPECT_EQ(ntb_log_extents(&io, &log, 1, &count), 0);
        work = (log.offset + log.length) / kPage; // what follows $LogFile is free
    }
    const Bytes image = formatted({.bytes = 4u << 20})->image;
    ntb_extent log{};
    std::uint64_t work = 0; // a page number
};

inline const Volume& volume() {
    static const Volume once;
    return once;
}

inline constexpr std::uint64_t kRecords = 64u << 10; // where records begin in $LogFile

inline std::byte& logByte(Disk& disk, std::uint64_t offset) {
    return disk.image.at(volume().log.offset + offset);
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
    const auto seen = std::make_shared<Disk>(base);
    for (const DiskEvent& event : disk.events) {
        const bool isLog = event.offset - volume().log.offset < volume().log.length;
        std::copy(event.content.begin(), event.content.end(),
                  seen->image.begin() + static_cast<std::ptrdiff_t>(event.offset));
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
    const auto begin = disk.image.begin() + static_cast<std::ptrdiff_t>(volume().log.offset);
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
    JournaledDevice device(std::make_shared<Disk>(disk.image));
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
    const auto disk = std::make_shared<Disk>(volume().image);
    std::fill_n(&disk->image.at(volume().work * kPage), 3 * kPage, std::byte{0x11});
    const auto device = mounted(disk);
    writePages(*device, number, 0, 3);
    disk->failsReads = false;
    disk->callsToFailure = 3; // the record, the device's sync, the pages
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
