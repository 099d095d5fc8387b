// One volume under many threads. Every operation is atomic and either done or, once the volume is
// unmounted, refused as a whole: what the threads saw succeed is exactly what is on the image.
#include "core/ntfs_volume.hpp"
#include "lab/sample_disk.hpp"
#include "support/on_threads.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <map>
#include <random>

namespace tavelin {
namespace {

using namespace test;

constexpr std::uint64_t kRoot = NTFSVolume::kRootIno;
constexpr int kThreads = 4;
constexpr int kNames = 6;
constexpr int kStepsBeforeUnmount = 20000;

/// What the threads share: a directory whose names they all make and remove.
struct Common {
    std::shared_ptr<NTFSVolume> volume;
    std::uint64_t directory = 0;
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
          directory_(volume_.create(name_, kRoot, NTFSItemType::directory)) {}

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

    /// The directory holds exactly what this worker's successful calls made of it.
    void expectDirectory(NTFSVolume& volume) const {
        std::map<std::string, std::string> found;
        for (const NTFSDirEntry& entry : volume.list(volume.lookup(name_, kRoot))) {
            const auto size = volume.attributes(entry.ino).size;
            found[std::string(entry.name)] = textOf(volume.read(entry.ino, 0, size));
        }
        EXPECT_EQ(found, files_);
    }

  private:
    void step() {
        switch (random_() % 5) {
        case 0:
            return expectDirectory(volume_);
        case 1:
            return compete(random_() % kNames);
        default:
            return changeOwnFile("f" + std::to_string(random_() % kNames));
        }
    }

    void changeOwnFile(const std::string& name) {
        if (const auto found = files_.find(name); found != files_.end()) {
            volume_.remove(name, directory_);
            files_.erase(found);
            return;
        }
        const std::uint64_t file = volume_.create(name, directory_, NTFSItemType::file);
        std::string& content = files_[name];
        const std::string text(random_() % 9000, static_cast<char>('a' + random_() % 26));
        volume_.write(file, 0, bytesOf(text));
        content = text;
    }

    /// All threads make and remove the same names; each call has one winner.
    void compete(std::size_t which) {
        const std::string name = "c" + std::to_string(which);
        const bool making = random_() % 2 == 0;
        const std::int32_t code = codeOf([&] {
            making ? static_cast<void>(volume_.create(name, common_.directory, NTFSItemType::file))
                   : static_cast<void>(volume_.remove(name, common_.directory));
        });
        if (code == 0) {
            common_.made[which] += making ? 1 : -1;
        } else if (code != (making ? kEEXIST : kENOENT)) {
            throw NTFSError(code);
        }
    }

    Common& common_;
    NTFSVolume& volume_;
    std::string name_;
    std::minstd_rand random_;
    std::uint64_t directory_;
    std::map<std::string, std::string> files_;
};

TEST(VolumeThreads, WhatSucceededBeforeAnUnmountInTheMiddleIsOnTheImage) {
    const SampleVolume sample({.bytes = 32u << 20});
    Common common;
    common.volume = NTFSVolume::open(diskOf(sample), false);
    common.directory = common.volume->create("common", kRoot, NTFSItemType::directory);
    common.volume->startAutoFlush(0.01);

    std::vector<Worker> workers;
    for (int i = 0; i < kThreads; ++i) {
        workers.emplace_back(common, i);
    }
    onThreads(kThreads + 1, [&](int thread) {
        if (thread < kThreads) {
            workers[static_cast<std::size_t>(thread)].run();
        } else {
            common.unmountNow.get_future().wait();
            common.volume->unmount();
        }
    });

    expectConsistent(sample);
    const auto after = NTFSVolume::open(diskOf(sample), true);
    for (const Worker& worker : workers) {
        worker.expectDirectory(*after);
    }
    for (std::size_t i = 0; i < kNames; ++i) {
        const std::string path = "common/c" + std::to_string(i);
        const bool present = codeOf([&] { static_cast<void>(after->resolve(path)); }) == 0;
        EXPECT_EQ(common.made[i], present ? 1 : 0) << path;
    }
}

TEST(VolumeThreads, ATickMayHoldTheLastReference) {
    const SampleVolume sample;
    std::promise<void> ticking, dropped;
    const auto gone = std::make_shared<std::promise<void>>(); // outlives its own fulfilment
    auto device = diskOf(sample);
    // Goes with the disk that has the hook.
    std::shared_ptr<void> guard(nullptr, [gone](void*) { gone->set_value(); });
    device->hook = [&, guard = std::move(guard), first = true](DiskCall call, auto,
                                                               std::size_t length) mutable {
        if (call == DiskCall::flush && std::exchange(first, false)) {
            ticking.set_value();
            dropped.get_future().wait();
        }
        return length;
    };
    auto volume = NTFSVolume::open(std::move(device), false);
    volume->create("file", kRoot, NTFSItemType::file);
    volume->startAutoFlush(0.001);
    ticking.get_future().wait();
    volume.reset();
    dropped.set_value();
    gone->get_future().wait();
    expectConsistent(sample);
    EXPECT_EQ(sample.list(), std::vector<std::string>{"file"});
}

} // namespace
} // namespace tavelin
