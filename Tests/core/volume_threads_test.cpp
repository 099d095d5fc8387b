// One volume under many threads. Every operation is atomic and either done or, once the volume is
// unmounted, refused as a whole: what the threads saw succeed is exactly what is on the image.
#include "watched_device.hpp"

#include "core/ntfs_volume.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <map>
#include <random>
#include <set>
#include <thread>

namespace tavelin {
namespace {

using namespace test;

constexpr std::uint64_t kRoot = NTFSVolume::kRootIno;
constexpr int kThreads = 4;
constexpr int kNames = 6;
constexpr int kStepsBeforeUnmount = 20000;
constexpr std::size_t kBlock = 4096;

/// What the threads share: a folder whose names they all make and remove, and a file that each of
/// them writes in whole blocks of one byte.
struct Common {
    std::shared_ptr<NTFSVolume> volume;
    std::uint64_t folder = 0;
    std::uint64_t file = 0;
    std::array<std::atomic<int>, kNames> made{}; // made minus removed
    std::atomic<int> steps = 0;
    std::promise<void> unmountNow;
};

class Worker {
  public:
    Worker(Common& common, int number)
        : common_(common),
          volume_(*common.volume),
          name_("own" + std::to_string(number)),
          random_(static_cast<unsigned>(number)),
          folder_(volume_.create(name_, kRoot, NTFSItemType::directory)) {}

    void run() {
        try {
            while (true) {
                step();
                if (++common_.steps == kStepsBeforeUnmount) {
                    common_.unmountNow.set_value();
                }
            }
        } catch (const NTFSError& error) {
            EXPECT_EQ(error.code, kENXIO) << error.what();
        }
    }

    /// The folder holds exactly what this worker's successful calls made of it.
    void expectFolder(NTFSVolume& volume) const {
        std::map<std::string, std::string> found;
        const auto folder = volume.lookup(name_, kRoot);
        for (const NTFSDirEntry& entry : volume.list(folder)) {
            const auto size = volume.attributes(entry.ino).size;
            found[entry.name] = textOf(volume.read(entry.ino, 0, size));
        }
        EXPECT_EQ(found, files_);
    }

  private:
    void step() {
        const std::string name = "f" + std::to_string(random_() % kNames);
        switch (random_() % 8) {
        case 0:
            make(name);
            break;
        case 1:
            write(name);
            break;
        case 2:
            move(name, "f" + std::to_string(random_() % kNames));
            break;
        case 3:
            remove(name);
            break;
        case 4:
            expectFolder(volume_);
            break;
        case 5:
            compete(random_() % kNames);
            break;
        case 6:
            writeAndReadWholeBlocks();
            break;
        default:
            EXPECT_LE(volume_.statfs().freeClusters, volume_.statfs().totalClusters);
            EXPECT_GT(volume_.ioStats().cacheHits, 0u);
            break;
        }
    }

    void make(const std::string& name) {
        if (!files_.contains(name)) {
            volume_.create(name, folder_, NTFSItemType::file);
            files_[name];
        }
    }

    void write(const std::string& name) {
        if (files_.contains(name)) {
            const std::string text(random_() % 9000, static_cast<char>('a' + random_() % 26));
            std::string& content = files_[name];
            volume_.write(volume_.lookup(name, folder_), 0, bytesOf(text));
            content.replace(0, std::min(content.size(), text.size()), text);
        }
    }

    void move(const std::string& from, const std::string& to) {
        if (files_.contains(from) && from != to) {
            volume_.rename(from, folder_, to, folder_);
            files_[to] = std::move(files_[from]);
            files_.erase(from);
        }
    }

    void remove(const std::string& name) {
        if (files_.contains(name)) {
            volume_.remove(name, folder_);
            files_.erase(name);
        }
    }

    /// All threads make and remove the same names; each call has one winner.
    void compete(std::size_t which) {
        const std::string name = "c" + std::to_string(which);
        try {
            if (random_() % 2 == 0) {
                volume_.create(name, common_.folder, NTFSItemType::file);
                ++common_.made[which];
            } else {
                volume_.remove(name, common_.folder);
                --common_.made[which];
            }
        } catch (const NTFSError& error) {
            if (error.code != kEEXIST && error.code != kENOENT) {
                throw;
            }
        }
    }

    void writeAndReadWholeBlocks() {
        const std::string block(kBlock, static_cast<char>('A' + random_() % 26));
        volume_.write(common_.file, 0, bytesOf(block));
        const std::string seen = textOf(volume_.read(common_.file, 0, kBlock));
        EXPECT_EQ(seen, std::string(kBlock, seen.at(0))) << "a torn write";
    }

    Common& common_;
    NTFSVolume& volume_;
    std::string name_;
    std::minstd_rand random_;
    std::uint64_t folder_;
    std::map<std::string, std::string> files_;
};

TEST(VolumeThreads, WhatSucceededBeforeAnUnmountInTheMiddleIsOnTheImage) {
    const SampleVolume sample({.bytes = 32u << 20});
    Common common;
    common.volume = NTFSVolume::open(std::make_shared<WatchedDevice>(sample), false);
    common.folder = common.volume->create("common", kRoot, NTFSItemType::directory);
    common.file = common.volume->create("torn", kRoot, NTFSItemType::file);
    common.volume->startAutoFlush(0.01);

    std::vector<Worker> workers;
    for (int i = 0; i < kThreads; ++i) {
        workers.emplace_back(common, i);
    }
    std::vector<std::thread> threads;
    for (Worker& worker : workers) {
        threads.emplace_back([&worker] { worker.run(); });
    }
    common.unmountNow.get_future().wait();
    common.volume->unmount();
    for (std::thread& thread : threads) {
        thread.join();
    }

    expectConsistent(sample);
    const auto after = NTFSVolume::open(std::make_shared<WatchedDevice>(sample), true);
    for (const Worker& worker : workers) {
        worker.expectFolder(*after);
    }
    std::set<std::string> expected, found;
    for (std::size_t i = 0; i < kNames; ++i) {
        EXPECT_TRUE(common.made[i] == 0 || common.made[i] == 1);
        if (common.made[i] == 1) {
            expected.insert("c" + std::to_string(i));
        }
    }
    for (const NTFSDirEntry& entry : after->list(common.folder)) {
        found.insert(entry.name);
    }
    EXPECT_EQ(found, expected);
}

TEST(VolumeThreads, ChangesReachTheDeviceWithoutAFurtherCall) {
    const SampleVolume sample;
    const auto device = std::make_shared<WatchedDevice>(sample);
    const auto volume = NTFSVolume::open(device, false);
    volume->startAutoFlush();
    const int before = device->syncs();
    const auto file = volume->create("file", kRoot, NTFSItemType::file);
    volume->write(file, 0, bytesOf("soon on the device"));
    device->waitForSyncsBeyond(before);
    volume->withDeviceLock([&] { EXPECT_EQ(sample.cat("/file"), "soon on the device"); });
}

TEST(VolumeThreads, ATickMayHoldTheLastReference) {
    const SampleVolume sample;
    std::promise<void> ticking, dropped, gone;
    auto device = std::make_shared<WatchedDevice>(sample);
    device->onSync = [&, first = true]() mutable {
        if (std::exchange(first, false)) {
            ticking.set_value();
            dropped.get_future().wait();
        }
    };
    device->onGone = [&] { gone.set_value(); };
    auto volume = NTFSVolume::open(std::move(device), false);
    volume->create("file", kRoot, NTFSItemType::file);
    volume->startAutoFlush(0.001);
    ticking.get_future().wait();
    volume.reset();
    dropped.set_value();
    gone.get_future().wait();
    expectConsistent(sample);
    EXPECT_EQ(sample.list(), std::vector<std::string>{"file"});
}

} // namespace
} // namespace tavelin
