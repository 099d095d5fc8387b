// File data under hard use: databases, random and mapped writes, truncation, full volumes.
#include "hosts/fuse/served_volume.hpp"
#include "support/run_process.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/aio_abi.h>
#include <linux/fs.h>
#include <memory>
#include <optional>
#include <random>
#include <span>
#include <stop_token>
#include <sys/fsuid.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <thread>
#include <unistd.h>

namespace tavelin::test {
namespace {

namespace fs = std::filesystem;

struct MountData : MountTest {
    MountData() : MountTest(256 * kMiB) {}
    void agreeWithAModel();
};

TEST_F(MountData, DatabasesKeepTheirTransactions) {
    for (const std::string journal : {"wal", "delete"}) {
        const std::string database = path(journal + ".db");
        std::string script = "PRAGMA journal_mode=" + journal +
                             "; PRAGMA synchronous=NORMAL;"
                             "CREATE TABLE t(id INTEGER PRIMARY KEY, v TEXT);";
        for (int i = 0; i < 1500; ++i) {
            const std::string id = std::to_string(i);
            script += "BEGIN; INSERT INTO t VALUES(" + id + ", hex(randomblob(50)));" +
                      (i % 5 == 4 ? "DELETE FROM t WHERE id=" + std::to_string(i - 2) + ";" : "") +
                      "UPDATE t SET v='u' WHERE id=" + std::to_string(i / 2) + "; COMMIT;\n";
        }
        runOrThrow({"sqlite3", "-batch", database}, script);
        const auto check = [&] {
            return runOrThrow({"sqlite3", path(journal + ".db"),
                               "PRAGMA integrity_check; SELECT count(*), sum(id) FROM t;"});
        };
        const std::string expected = check();
        EXPECT_TRUE(expected.starts_with("ok\n1200|")) << expected;
        mount();
        EXPECT_EQ(check(), expected) << journal;
    }
    expectToLast(*volume_, served_);
}

// Writes around the kernel's cache, as virtual machines and databases do, with io_submit(2).
class DirectWriter {
  public:
    explicit DirectWriter(const fs::path& file) : fd_(file, O_RDWR | O_CREAT | O_DIRECT) {
        EXPECT_EQ(::syscall(SYS_io_setup, 1, &context_), 0);
    }
    ~DirectWriter() { ::syscall(SYS_io_destroy, context_); }
    DirectWriter(const DirectWriter&) = delete;
    DirectWriter& operator=(const DirectWriter&) = delete;

    // Returns when the write has ended.
    void write(std::span<char> content, int64_t offset) {
        iocb request{};
        request.aio_fildes = static_cast<uint32_t>(static_cast<int>(fd_));
        request.aio_lio_opcode = IOCB_CMD_PWRITE;
        request.aio_buf = reinterpret_cast<uintptr_t>(content.data());
        request.aio_nbytes = content.size();
        request.aio_offset = offset;
        iocb* const requests[] = {&request};
        ASSERT_EQ(::syscall(SYS_io_submit, context_, 1, requests), 1);
        io_event end{};
        ASSERT_EQ(::syscall(SYS_io_getevents, context_, 1, 1, &end, nullptr), 1);
        ASSERT_EQ(end.res, static_cast<int64_t>(content.size()));
    }

  private:
    Descriptor fd_;
    aio_context_t context_ = 0;
};

// What another program reads meanwhile must not stay in the kernel's cache.
TEST_F(MountData, BufferedReadersSeeWhatIsWrittenAroundTheCache) {
    constexpr size_t kBytes = 64 << 10;
    constexpr int kPlaces = 16;
    const std::unique_ptr<char, void (*)(void*)> memory(
        static_cast<char*>(std::aligned_alloc(4096, kBytes)), std::free);
    const std::span<char> content(memory.get(), kBytes);
    DirectWriter writer(*this / "file");
    for (int place = 0; place < kPlaces; ++place) {
        writer.write(content, place * static_cast<int64_t>(kBytes));
    }
    const Descriptor file(*this / "file", O_RDONLY);
    const std::jthread reader([&](const std::stop_token& stop) {
        std::string read(kBytes, 0);
        for (int place = 0; !stop.stop_requested(); place = (place + 1) % kPlaces) {
            (void)!::pread(file, read.data(), kBytes, place * static_cast<off_t>(kBytes));
        }
    });
    std::string read(kBytes, 0);
    for (int round = 0; round < 800; ++round) {
        std::ranges::fill(content, static_cast<char>(round % 127 + 1));
        const off_t place = round % kPlaces * static_cast<off_t>(kBytes);
        writer.write(content, place);
        ASSERT_EQ(::pread(file, read.data(), kBytes, place), static_cast<ssize_t>(kBytes));
        ASSERT_TRUE(std::ranges::equal(read, content)) << "in round " << round;
    }
}

// FITRIM as fstrim(8) asks for it, with `user` as the program's; the bytes, or minus the errno.
int64_t trim(const fs::path& item, fstrim_range range = {0, UINT64_MAX, 0}, uid_t user = 0) {
    const Descriptor fd(item, O_RDONLY);
    ::setfsuid(user);
    const int result = ::ioctl(fd, FITRIM, &range);
    const int error = errno;
    ::setfsuid(0);
    return result == 0 ? static_cast<int64_t>(range.len) : -error;
}

// Of the image file.
int64_t allocatedBytes(const SampleVolume& volume) {
    struct stat status {};
    EXPECT_EQ(::stat(volume.image().c_str(), &status), 0);
    return status.st_blocks * 512;
}

TEST_F(MountData, TrimmingGivesTheRoomOfRemovedFilesBackAndNothingElse) {
    runOrThrow({"dd", "if=/dev/urandom", "of=" + path("kept"), "bs=1M", "count=8"});
    runOrThrow({"dd", "if=/dev/urandom", "of=" + path("removed"), "bs=1M", "count=100"});
    const std::string kept = readFile(*this / "kept");
    const auto size = static_cast<int64_t>(256 * kMiB);
    EXPECT_EQ(trim(*this / "kept", {0, UINT64_MAX, 0}, 1000), -EPERM);
    EXPECT_EQ(trim(*this / "", {256 * kMiB, UINT64_MAX, 0}), -EINVAL);
    EXPECT_LT(trim(*this / ""), size - 108 * static_cast<int64_t>(kMiB));
    const int64_t before = allocatedBytes(*volume_);
    fs::remove(*this / "removed");
    int64_t trimmed = 0;
    for (int i = 0; i < 100 && trimmed < size - 16 * static_cast<int64_t>(kMiB); ++i) {
        trimmed = trim(*this / "kept"); // the kernel may not have let the file go yet
    }
    EXPECT_LE(allocatedBytes(*volume_), before - 100 * static_cast<int64_t>(kMiB));
    EXPECT_LE(trim(*this / "", {32 * kMiB, 64 * kMiB, 0}), static_cast<int64_t>(64 * kMiB));
    // Clusters change hands while others are trimmed.
    std::thread others([this] {
        for (int i = 0; i < 60; ++i) {
            const std::string name = "other " + std::to_string(i % 7);
            const std::string content(static_cast<size_t>(i) * 20'000, static_cast<char>('a' + i));
            writeFile(*this / name, content);
            EXPECT_TRUE(readFile(*this / name) == content);
            fs::remove(*this / ("other " + std::to_string(i * 3 % 7)));
        }
    });
    for (int i = 0; i < 20; ++i) {
        EXPECT_GT(trim(*this / ""), 0);
    }
    others.join();
    mount();
    EXPECT_TRUE(readFile(*this / "kept") == kept);
    expectToLast(*volume_, served_);
    mount("ro");
    EXPECT_EQ(trim(*this / ""), -EROFS);
}

// A device is told otherwise than an image file.
TEST_F(MountData, TrimmingReachesTheMediumOfADevice) {
    served_.reset();
    const ProcessResult attached = run({"losetup", "--find", "--show", volume_->image()});
    if (!attached.ok()) {
        GTEST_SKIP() << "there are no loop devices: " << attached.err;
    }
    const std::string device = attached.out.substr(0, attached.out.find('\n'));
    served_ = std::make_unique<ServedVolume>(device);
    runOrThrow({"dd", "if=/dev/urandom", "of=" + path("kept"), "bs=1M", "count=4"});
    runOrThrow({"dd", "if=/dev/urandom", "of=" + path("removed"), "bs=1M", "count=40"});
    const std::string kept = readFile(*this / "kept");
    EXPECT_GT(trim(*this / ""), 0);
    const int64_t before = allocatedBytes(*volume_);
    fs::remove(*this / "removed");
    for (int i = 0; i < 100 && allocatedBytes(*volume_) > before - 40 * int64_t{kMiB}; ++i) {
        EXPECT_GT(trim(*this / ""), 0); // the kernel may not have let the file go yet
    }
    EXPECT_LE(allocatedBytes(*volume_), before - 40 * int64_t{kMiB});
    EXPECT_EQ(served_->unmount(), 0);
    runOrThrow({"losetup", "--detach", device});
    mount();
    EXPECT_TRUE(readFile(*this / "kept") == kept);
}

// Writes, mapped writes, growing and shrinking against a copy in memory, with pages left dirty.
void MountData::agreeWithAModel() {
    constexpr size_t kFileBytesMax = 3 << 20;
    const std::string file = path("file");
    std::optional<Descriptor> fd(std::in_place, file, O_RDWR | O_CREAT);
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::string model;
    for (int step = 0; step < 600; ++step) {
        const size_t at = random() % kFileBytesMax;
        const size_t length = 1 + random() % (random() % 8 == 0 ? 300'000 : 9'000);
        const std::string bytes(length, static_cast<char>('a' + step % 26));
        switch (random() % 5) {
        case 0:
            ASSERT_EQ(::ftruncate(*fd, static_cast<off_t>(at)), 0);
            model.resize(at);
            break;
        case 1:
        case 2:
            ASSERT_EQ(::pwrite(*fd, bytes.data(), length, static_cast<off_t>(at)),
                      static_cast<ssize_t>(length));
            model.resize(std::max(model.size(), at + length));
            model.replace(at, length, bytes);
            break;
        case 3:
            if (at + length <= model.size()) {
                void* const map =
                    ::mmap(nullptr, model.size(), PROT_READ | PROT_WRITE, MAP_SHARED, *fd, 0);
                ASSERT_NE(map, MAP_FAILED);
                std::memcpy(static_cast<char*>(map) + at, bytes.data(), length);
                ::munmap(map, model.size());
                model.replace(at, length, bytes);
            }
            break;
        default:
            if (random() % 4 == 0) {
                ASSERT_EQ(::fsync(*fd), 0);
            }
            std::string part(length, 0);
            const ssize_t got = ::pread(*fd, part.data(), length, static_cast<off_t>(at));
            const std::string expected =
                at < model.size() ? model.substr(at, length) : std::string();
            ASSERT_EQ(part.substr(0, static_cast<size_t>(got)), expected) << "step " << step;
        }
    }
    fd.reset();
    EXPECT_TRUE(readFile(file) == model);
}

TEST_F(MountData, TruncationAndDirtyPagesAgreeWithAModel) {
    for (const std::string options : {"", "writeback"}) {
        SCOPED_TRACE(options);
        mountFresh(256 * kMiB, options);
        agreeWithAModel();
        expectToLast(*volume_, served_);
    }
}

TEST_F(MountData, RangesAreReservedZeroedAndFreed) {
    constexpr off_t kEnd = 1 << 20;
    std::optional<Descriptor> file(std::in_place, path("file"), O_RDWR | O_CREAT);
    const int fd = *file;
    struct stat status {};
    const auto change = [&](int mode, off_t offset, off_t length) {
        const int result = ::fallocate(fd, mode, offset, length) == 0 ? 0 : errno;
        EXPECT_EQ(::fstat(fd, &status), 0);
        return result;
    };
    EXPECT_EQ(change(FALLOC_FL_KEEP_SIZE, 0, kEnd), 0);
    EXPECT_EQ(status.st_size, 0);
    EXPECT_EQ(status.st_blocks, kEnd / 512);
    EXPECT_EQ(change(0, 0, kEnd), 0);
    EXPECT_EQ(status.st_size, kEnd);
    const std::string data(kEnd, 'x');
    EXPECT_EQ(::pwrite(fd, data.data(), data.size(), 0), kEnd);
    EXPECT_EQ(::lseek(fd, 0, SEEK_HOLE), kEnd);
    EXPECT_EQ(change(FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 65536 - 1, 65536 + 2), 0);
    EXPECT_EQ(status.st_blocks, (kEnd - 65536) / 512);
    EXPECT_EQ(::lseek(fd, 0, SEEK_HOLE), 65536);
    EXPECT_EQ(::lseek(fd, 65536, SEEK_DATA), 2 * 65536);
    EXPECT_EQ(change(FALLOC_FL_ZERO_RANGE, kEnd - 10, 20), 0);
    EXPECT_EQ(status.st_size, kEnd + 10);
    EXPECT_EQ(::lseek(fd, kEnd + 10, SEEK_DATA), -1);
    EXPECT_EQ(errno, ENXIO);
    EXPECT_EQ(change(FALLOC_FL_COLLAPSE_RANGE, 0, 4096), EOPNOTSUPP);
    EXPECT_EQ(change(0, 0, off_t{1} << 40), ENOSPC);
    EXPECT_EQ(status.st_size, kEnd + 10);
    // What is kept of the file in the kernel goes with the range.
    std::string expected = data + std::string(10, '\0');
    expected.replace(65535, 65538, 65538, '\0').replace(kEnd - 10, 10, 10, '\0');
    EXPECT_EQ(readFile(path("file")), expected);
    runOrThrow({"cp", "--sparse=auto", path("file"), path("copy")});
    EXPECT_EQ(readFile(path("copy")), expected);
    ASSERT_EQ(::stat(path("copy").c_str(), &status), 0);
    EXPECT_EQ(status.st_blocks, (kEnd - 65536) / 512);
    file.reset();
    expectToLast(*volume_, served_);
}

TEST_F(MountData, AFullVolumeSaysSoAndLosesNothing) {
    mountFresh(24 * kMiB);
    for (const char* const name : {"kept", "new", "old"}) {
        writeFile(*this / name, name);
    }
    const off_t size = fillVolume(true);
    EXPECT_GT(size, 15 << 20);
    // Everything else that takes room fails cleanly too.
    const std::string value(64 << 10, 'v');
    EXPECT_EQ(errorOf(::truncate(path("kept").c_str(), 64 << 20)), ENOSPC);
    EXPECT_EQ(errorOf(::open(path("another").c_str(), O_WRONLY | O_CREAT | O_EXCL, 0666)), ENOSPC);
    EXPECT_EQ(errorOf(::symlink("kept", path("link").c_str())), ENOSPC);
    EXPECT_EQ(errorOf(::setxattr(path("kept").c_str(), "user.x", value.data(), value.size(), 0)),
              ENOSPC);
    EXPECT_EQ(readFile(*this / "kept"), "kept");
    const int replacing = errorOf(::rename(path("new").c_str(), path("old").c_str()));
    EXPECT_TRUE(replacing == 0 || replacing == ENOSPC) << replacing;
    EXPECT_EQ(readFile(*this / "old"), replacing == 0 ? "new" : "old");
    EXPECT_TRUE(readFile(*this / "large") == std::string(static_cast<size_t>(size), 'b'));
    // Removed space is there at once.
    fs::remove(*this / "large");
    EXPECT_GE(fillVolume(false), size - (512 << 10));
    expectToLast(*volume_, served_);
}

} // namespace
} // namespace tavelin::test
