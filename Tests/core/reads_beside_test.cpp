// Long reads leave the volume's lock to others while the device is at work, and still answer
// nothing but what the file had.
#include "core/file_block_device.hpp"
#include "core/journal/journaled_device.hpp"
#include "core/ntfs_volume.hpp"
#include "lab/sample_disk.hpp"
#include "support/bytes.hpp"
#include "support/on_threads.hpp"
#include "support/sample_volume.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <random>
#include <thread>

namespace tavelin {
namespace {

using namespace test;

constexpr std::size_t kMiB = 1 << 20;

// A device that stops as many long reads as it is told to, before they read.
class GatedDevice final : public BlockDevice {
  public:
    explicit GatedDevice(const SampleVolume& volume) : inner_(volume.image().string(), 512) {}

    std::uint64_t size() const noexcept override { return inner_.size(); }
    std::uint32_t blockSize() const noexcept override { return inner_.blockSize(); }
    bool allowsReadsBeside() const noexcept override { return true; }
    std::int32_t read(std::byte* to, std::uint64_t offset, std::uint64_t length) noexcept override {
        EXPECT_FALSE(isClosed) << "a read came after the unmount";
        if (length > NTB_CACHED_BYTES_MAX) {
            const MutexLock held(lock_);
            const bool waits = ++longReads_ <= held_;
            changed_.notifyAll();
            while (waits && held_ != 0) {
                changed_.wait(lock_);
            }
        }
        for (int i = 0; length > NTB_CACHED_BYTES_MAX && i < turns; ++i) {
            std::this_thread::yield();
        }
        return inner_.read(to, offset, length);
    }
    std::int32_t write(const std::byte* from, std::uint64_t offset,
                       std::uint64_t length) noexcept override {
        return inner_.write(from, offset, length);
    }
    // What it is told of is lost at once.
    std::int32_t discard(std::uint64_t offset, std::uint64_t length) noexcept override {
        const Bytes lost(length, std::byte{0xdd});
        return inner_.write(lost.data(), offset, length);
    }
    std::int32_t sync() noexcept override { return inner_.sync(); }

    // The next so many wait until open().
    void hold(int reads) {
        const MutexLock held(lock_);
        held_ = reads;
        longReads_ = 0;
    }
    // Whether all of them have come. The limit is for those that never do.
    bool awaitHeld() {
        const auto limit = std::chrono::steady_clock::now() + std::chrono::minutes(1);
        const MutexLock held(lock_);
        while (longReads_ < held_ && std::chrono::steady_clock::now() < limit) {
            changed_.waitUntil(lock_, limit);
        }
        return longReads_ >= held_;
    }
    void open() {
        const MutexLock held(lock_);
        held_ = 0;
        changed_.notifyAll();
    }
    int longReads() {
        const MutexLock held(lock_);
        return longReads_;
    }

    std::atomic<bool> isClosed = false;
    std::atomic<int> turns = 0; // that a long read leaves to other threads

  private:
    FileBlockDevice inner_;
    Mutex lock_;
    ConditionVariable changed_;
    int held_ TAVELIN_GUARDED_BY(lock_) = 0;
    int longReads_ TAVELIN_GUARDED_BY(lock_) = 0; // since hold()
};

// A volume with its journal over such a device.
class Mounted {
  public:
    explicit Mounted(std::uint64_t bytes)
        : sample({.bytes = bytes}),
          device(std::make_shared<GatedDevice>(sample)),
          journal(std::make_shared<JournaledDevice>(device)) {
        EXPECT_EQ(journal->replay(false), 0);
        volume = NTFSVolume::open(journal, false);
        EXPECT_EQ(journal->begin(), 0);
    }
    ~Mounted() {
        device->open();
        volume->unmount();
        EXPECT_EQ(journal->close(), 0);
    }
    Mounted(const Mounted&) = delete;
    Mounted& operator=(const Mounted&) = delete;

    // As a reference that knows the file's successor in the record from it.
    std::uint64_t make(const std::string& name, const std::string& content) const {
        const std::uint64_t ino = volume->create(name, NTFSVolume::kRootIno, NTFSItemType::file);
        EXPECT_EQ(volume->write(ino, 0, bytesOf(content)).count, content.size());
        return volume->attributes(ino).reference();
    }

    const SampleVolume sample;
    const std::shared_ptr<GatedDevice> device;
    const std::shared_ptr<JournaledDevice> journal;
    std::shared_ptr<NTFSVolume> volume;
};

TEST(ReadsBeside, LeaveTheVolumeToOthersMeanwhile) {
    const Mounted mounted(64u << 20);
    NTFSVolume& volume = *mounted.volume;
    // One that ends with a block of the device, and one that does not.
    const std::string contents[] = {std::string(kMiB, 'a'), std::string(kMiB - 700, 'b')};
    std::vector<std::uint64_t> files;
    for (const std::string& content : contents) {
        files.push_back(mounted.make(content.substr(0, 1), content));
    }
    volume.sync();
    mounted.device->hold(2);
    std::vector<std::future<Bytes>> readers;
    for (const std::uint64_t file : files) {
        readers.push_back(
            std::async(std::launch::async, [&volume, file] { return volume.read(file, 0, kMiB); }));
    }
    const bool haveCome = mounted.device->awaitHeld();
    EXPECT_TRUE(haveCome);
    if (haveCome) { // else one has the lock, and this would wait for it
        EXPECT_EQ(volume.lookup("a", NTFSVolume::kRootIno), recordNumber(files[0]));
        const std::uint64_t made = mounted.make("new", "small");
        volume.sync();
        EXPECT_EQ(textOf(volume.read(made, 0, 100)), "small");
        volume.remove("new", NTFSVolume::kRootIno);
    }
    mounted.device->open();
    for (std::size_t i = 0; i < files.size(); ++i) {
        EXPECT_TRUE(textOf(readers[i].get()) == contents[i]);
    }
    EXPECT_EQ(mounted.device->longReads(), 2) << "nothing had to be read again";
}

// Leaves no room but a little for names and the journal.
void fill(NTFSVolume& volume) {
    const std::uint64_t rest = volume.create("rest", NTFSVolume::kRootIno, NTFSItemType::file);
    const std::string block(64 << 10, 'r');
    std::uint64_t end = 0;
    while (codeOf([&] { end += volume.write(rest, end, bytesOf(block)).count; }) == 0) {
    }
    volume.truncate(rest, end - (256 << 10));
    volume.sync();
}

// Has another file take the clusters that a file of 1 MiB has lost.
void giveAway(NTFSVolume& volume) {
    volume.sync(); // from here on they are free
    const std::uint64_t heir = volume.create("heir", NTFSVolume::kRootIno, NTFSItemType::file);
    for (std::uint64_t at = 0; at < kMiB - (128 << 10); at += 64 << 10) {
        const NTFSWrite done = volume.write(heir, at, bytesOf(std::string(64 << 10, 'x')));
        EXPECT_EQ(done.count, std::size_t{64 << 10});
    }
}

const std::string kBefore(kMiB, 'v');

const struct Meanwhile {
    const char* what;
    std::function<void(NTFSVolume&, std::uint64_t file)> change;
    std::int32_t code;
    std::string expected;
    bool isReadOnce = false;
} kMeanwhile[] = {
    {"nothing", [](auto&, auto) {}, 0, kBefore, true},
    {"renamed",
     [](auto& volume, auto) {
         volume.rename("file", NTFSVolume::kRootIno, "other", NTFSVolume::kRootIno);
     },
     0, kBefore, true},
    {"overwritten at once",
     [](auto& volume, auto file) { volume.write(file, 0, bytesOf(std::string(kMiB, 'n'))); }, 0,
     std::string(kMiB, 'n')},
    {"overwritten in the middle",
     [](auto& volume, auto file) { volume.write(file, 500'000, bytesOf("new")); }, 0,
     std::string(kBefore).replace(500'000, 3, "new")},
    {"cut off, and the rest another's",
     [](auto& volume, auto file) {
         volume.truncate(file, 1'000);
         giveAway(volume);
     },
     0, kBefore.substr(0, 1'000)},
    {"holed, and the rest another's",
     [](auto& volume, auto file) {
         volume.allocate(file, 0, kMiB, NTFSAllocation::punchHole);
         giveAway(volume);
     },
     0, std::string(kMiB, '\0')},
    {"removed, and now another's",
     [](auto& volume, auto) {
         volume.remove("file", NTFSVolume::kRootIno);
         giveAway(volume);
     },
     kESTALE, ""},
    {"removed, and discarded",
     [](auto& volume, auto) {
         volume.remove("file", NTFSVolume::kRootIno);
         EXPECT_GE(volume.trim({0, UINT64_MAX, 0}, [] { return true; }), kMiB);
     },
     kESTALE, ""},
};

// Each change is on the device before the read that has begun gets there.
TEST(ReadsBeside, AnswerNothingThatIsNotTheFiles) {
    for (const Meanwhile& c : kMeanwhile) {
        SCOPED_TRACE(c.what);
        const Mounted mounted(16u << 20);
        const std::uint64_t file = mounted.make("file", kBefore);
        fill(*mounted.volume);
        mounted.device->hold(1);
        std::string read;
        std::future<std::int32_t> reader = std::async(std::launch::async, [&] {
            return codeOf([&] { read = textOf(mounted.volume->read(file, 0, kMiB)); });
        });
        EXPECT_TRUE(mounted.device->awaitHeld());
        EXPECT_EQ(codeOf([&] {
                      c.change(*mounted.volume, file);
                      mounted.volume->sync();
                  }),
                  0);
        mounted.device->open();
        EXPECT_EQ(reader.get(), c.code);
        EXPECT_TRUE(read == c.expected) << read.substr(0, 20);
        EXPECT_TRUE(!c.isReadOnce || mounted.device->longReads() == 1);
    }
}

// What waits in the bridge's cache or in the journal is not on the device yet.
TEST(ReadsBeside, SeeWhatWaits) {
    const Mounted mounted(64u << 20);
    std::string content(kMiB, 'a');
    const std::uint64_t file = mounted.make("file", content);
    for (const char* text : {"new", "newer"}) { // the second time the last record names the page
        mounted.volume->sync();
        for (const std::size_t at : {std::size_t{0}, std::size_t{70'000}, kMiB - 5}) {
            mounted.volume->write(file, at, bytesOf(text));
            content.replace(at, std::string_view(text).size(), text);
            for (const char* where : {"in the cache", "in the journal"}) {
                EXPECT_TRUE(textOf(mounted.volume->read(file, 0, kMiB)) == content) << where;
            }
        }
    }
}

// The content of a file in this test: each sector says whose it is and where.
struct Sector {
    std::uint64_t file;
    std::uint64_t index;
    std::array<std::byte, 496> rest;
};
static_assert(sizeof(Sector) == 512);

TEST(ReadsBeside, NeverAnswerBytesOfAnotherFile) {
    constexpr std::size_t kSectors = 1024; // of the largest file
    constexpr int kWriters = 2;
    constexpr int kReaders = 3;
    const Mounted mounted(16u << 20); // so small that clusters change hands all the time
    NTFSVolume& volume = *mounted.volume;
    mounted.device->turns = 100;
    volume.startAutoFlush(0.005);
    struct Shared {
        std::atomic<std::uint64_t> file{0}; // a reference; 0 for none
    };
    std::array<Shared, 6> files;
    std::atomic<int> writersLeft = kWriters;
    std::atomic<std::uint64_t> sectorsSeen = 0;

    const auto write = [&](int writer) {
        std::mt19937 random(static_cast<unsigned>(writer));
        std::vector<Sector> content(kSectors);
        for (int step = 0; step < 150; ++step) {
            const std::size_t which =
                random() % (files.size() / kWriters) * kWriters + static_cast<std::size_t>(writer);
            const std::string name = "file" + std::to_string(which);
            std::uint64_t file = files[which].file;
            if (file == 0) {
                file =
                    volume.attributes(volume.create(name, NTFSVolume::kRootIno, NTFSItemType::file))
                        .reference();
                files[which].file = file;
            }
            const auto what = random() % 4;
            if (what == 0) {
                files[which].file = 0;
                volume.remove(name, NTFSVolume::kRootIno);
            } else if (what == 1) {
                volume.truncate(file, random() % kSectors * sizeof(Sector));
            } else {
                const std::size_t first = random() % kSectors;
                const std::size_t count = 1 + random() % (kSectors - first);
                for (std::size_t i = 0; i < count; ++i) {
                    content[i].file = file;
                    content[i].index = first + i;
                }
                volume.write(file, first * sizeof(Sector),
                             std::as_bytes(std::span(content.data(), count)));
            }
        }
        --writersLeft;
    };
    const auto read = [&](int reader) {
        std::mt19937 random(static_cast<unsigned>(100 + reader));
        std::vector<Sector> found(kSectors);
        while (writersLeft != 0) {
            const std::uint64_t file = files[random() % files.size()].file;
            if (file == 0) {
                continue;
            }
            const std::size_t first = random() % 4 * 64;
            std::size_t bytes = 0;
            const std::int32_t code = codeOf([&] {
                bytes = volume.read(file, first * sizeof(Sector),
                                    reinterpret_cast<std::byte*>(found.data()),
                                    found.size() * sizeof(Sector));
            });
            ASSERT_TRUE(code == 0 || code == kESTALE || code == kEISDIR || code == kENOENT) << code;
            ASSERT_EQ(bytes % sizeof(Sector), 0u);
            for (std::size_t i = 0; i < bytes / sizeof(Sector); ++i) {
                const bool isHole = found[i].file == 0 && found[i].index == 0;
                ASSERT_TRUE(isHole || (found[i].file == file && found[i].index == first + i))
                    << "of file " << found[i].file << " in file " << file;
                ++sectorsSeen;
            }
        }
    };
    onThreads(kWriters + kReaders,
              [&](int thread) { thread < kWriters ? write(thread) : read(thread - kWriters); });
    EXPECT_GT(sectorsSeen, 0u);
}

// The device may be closed when an unmount returns.
TEST(ReadsBeside, EndBeforeTheUnmountDoes) {
    for (int round = 0; round < 30; ++round) {
        const Mounted mounted(16u << 20);
        const std::uint64_t file = mounted.make("file", std::string(kMiB, 'v'));
        mounted.volume->sync();
        std::atomic<int> reads = 0;
        onThreads(4, [&](int thread) {
            if (thread == 0) {
                while (reads < round) {
                    std::this_thread::yield();
                }
                mounted.volume->unmount();
                mounted.device->isClosed = true;
                return;
            }
            std::int32_t code = 0;
            while (code == 0) {
                code = codeOf([&] {
                    EXPECT_EQ(mounted.volume->read(file, 0, kMiB).size(), kMiB);
                    ++reads;
                });
            }
            EXPECT_EQ(code, kENXIO);
        });
        mounted.device->isClosed = false; // for the journal
    }
}

} // namespace
} // namespace tavelin
