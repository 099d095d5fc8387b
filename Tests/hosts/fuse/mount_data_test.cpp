// File data under hard use: databases, verified random writes, mapped files, truncation.
#include "hosts/fuse/served_volume.hpp"
#include "support/run_process.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace tavelin::test {
namespace {

namespace fs = std::filesystem;

class MountData : public MountTest {
  protected:
    void SetUp() override {
        MountTest::SetUp();
        if (!IsSkipped()) {
            mountFresh(256 * kMiB);
        }
    }
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

TEST_F(MountData, RandomWritesVerify) {
    const auto fio = [&](std::vector<std::string> words) {
        words.insert(words.begin(),
                     {"fio", "--name=t", "--directory=" + served_->directory().string(),
                      "--rw=randwrite", "--verify=crc32c", "--verify_fatal=1", "--do_verify=1",
                      "--randseed=7", "--fallocate=none", "--verify_state_save=0"});
        const ProcessResult result = run(words);
        EXPECT_TRUE(result.ok()) << result.describe();
    };
    fio({"--ioengine=psync", "--bsrange=512-64k", "--bs_unaligned", "--size=12m", "--fsync=64"});
    fio({"--ioengine=mmap", "--bs=4k", "--size=12m", "--filename=mapped"});
    fio({"--ioengine=psync", "--bs=8k", "--size=6m", "--numjobs=4", "--thread"});
    expectToLast(*volume_, served_);
}

// Writes, mapped writes, growing and shrinking against a copy in memory, with pages left dirty.
TEST_F(MountData, TruncationAndDirtyPagesAgreeWithAModel) {
    constexpr size_t kFileBytesMax = 3 << 20;
    const std::string file = path("file");
    const int fd = ::open(file.c_str(), O_RDWR | O_CREAT, 0666);
    ASSERT_NE(fd, -1);
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
            ASSERT_EQ(::ftruncate(fd, static_cast<off_t>(at)), 0);
            model.resize(at);
            break;
        case 1:
        case 2:
            ASSERT_EQ(::pwrite(fd, bytes.data(), length, static_cast<off_t>(at)),
                      static_cast<ssize_t>(length));
            model.resize(std::max(model.size(), at + length));
            model.replace(at, length, bytes);
            break;
        case 3:
            if (at + length <= model.size()) {
                void* const map =
                    ::mmap(nullptr, model.size(), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
                ASSERT_NE(map, MAP_FAILED);
                std::memcpy(static_cast<char*>(map) + at, bytes.data(), length);
                ::munmap(map, model.size());
                model.replace(at, length, bytes);
            }
            break;
        default:
            if (random() % 4 == 0) {
                ASSERT_EQ(::fsync(fd), 0);
            }
            std::string part(length, 0);
            const ssize_t got = ::pread(fd, part.data(), length, static_cast<off_t>(at));
            const std::string expected =
                at < model.size() ? model.substr(at, length) : std::string();
            ASSERT_EQ(part.substr(0, static_cast<size_t>(got)), expected) << "step " << step;
        }
    }
    ::close(fd);
    EXPECT_TRUE(readFile(file) == model);
    expectToLast(*volume_, served_);
}

TEST_F(MountData, AFullVolumeSaysSoAndLosesNothing) {
    mountFresh(24 * kMiB);
    const std::string block(64 << 10, 'b');
    writeFile(*this / "kept", "kept content");
    writeFile(*this / "new", "new content");
    writeFile(*this / "old", "old content");
    const auto fill = [&](const std::string& name) {
        const int fd = ::open(path(name).c_str(), O_WRONLY | O_CREAT, 0666);
        EXPECT_NE(fd, -1);
        off_t size = 0;
        // A write for which there is no room changes nothing, so the rest is filled piece by piece.
        for (size_t piece = block.size(); piece >= 512; piece /= 2) {
            ssize_t done = 0;
            while ((done = ::pwrite(fd, block.data(), piece, size)) > 0) {
                size += done;
            }
            EXPECT_EQ(errno, ENOSPC);
        }
        EXPECT_EQ(::fsync(fd), 0) << "what was accepted can be kept";
        ::close(fd);
        return size;
    };
    for (const char* name : {"f0", "f1"}) {
        fs::create_directory(*this / name);
    }
    const off_t first = fill("large");
    EXPECT_GT(first, 15 << 20);
    // Everything else that takes room fails cleanly too.
    const auto errorOf = [](int result) { return result == -1 ? errno : 0; };
    EXPECT_EQ(errorOf(::truncate(path("kept").c_str(), 64 << 20)), ENOSPC);
    int created = 2;
    errno = 0;
    while (created < 100'000 && ::mkdir(path("f" + std::to_string(created)).c_str(), 0777) == 0) {
        ++created;
    }
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(errorOf(::open(path("another").c_str(), O_WRONLY | O_CREAT | O_EXCL, 0666)), ENOSPC);
    EXPECT_EQ(errorOf(::symlink("kept", path("link").c_str())), ENOSPC);
    EXPECT_EQ(errorOf(::setxattr(path("kept").c_str(), "user.x", block.data(), block.size(), 0)),
              ENOSPC);
    EXPECT_EQ(readFile(*this / "kept"), "kept content");
    const int replacing = errorOf(::rename(path("new").c_str(), path("old").c_str()));
    EXPECT_TRUE(replacing == 0 || replacing == ENOSPC) << replacing;
    EXPECT_EQ(readFile(*this / "old"), replacing == 0 ? "new content" : "old content");
    const int moving = errorOf(::rename(path("f0").c_str(), path("f1").c_str()));
    EXPECT_TRUE(moving == 0 || moving == ENOSPC) << moving;
    EXPECT_EQ(fs::exists(*this / "f0"), moving != 0);
    const std::string large = readFile(*this / "large");
    EXPECT_EQ(large.size(), static_cast<size_t>(first)) << "the last write said how far it came";
    EXPECT_EQ(large.find_first_not_of('b'), std::string::npos);
    for (int i = 1; i < created; ++i) {
        EXPECT_EQ(::rmdir(path("f" + std::to_string(i)).c_str()), 0);
    }
    // Removed space is there at once.
    fs::remove(*this / "large");
    EXPECT_GE(fill("second"), first - (512 << 10));
    fs::remove(*this / "second");
    expectToLast(*volume_, served_);
}

TEST_F(MountData, AFullVolumeStillRemovesFiles) {
    mountFresh(24 * kMiB);
    changeByDriver([](const TempDirectory& directory) {
        addAliased(directory);
        writeFile(directory / "first", "shared");
        fs::create_hard_link(directory / "first", directory / "second");
    });
    // No clusters are left, and no records.
    const int fd = ::open(path("large").c_str(), O_WRONLY | O_CREAT, 0666);
    std::string block(64 << 10, 'b');
    for (; !block.empty(); block.resize(block.size() / 2)) {
        while (::write(fd, block.data(), block.size()) > 0) {
        }
    }
    ::close(fd);
    for (int i = 0; ::mknod(path("f" + std::to_string(i)).c_str(), S_IFREG | 0666, 0) == 0; ++i) {
    }
    const int open = ::open(path("a long name.txt").c_str(), O_RDONLY);
    EXPECT_EQ(::unlink(path("a long name.txt").c_str()), 0);
    EXPECT_EQ(::unlink(path("first").c_str()), 0);
    char byte = 0;
    EXPECT_EQ(::pread(open, &byte, 1, 0), 1);
    EXPECT_EQ(::fsync(open), 0);
    ::close(open);
    EXPECT_FALSE(fs::exists(*this / "a long name.txt"));
    EXPECT_EQ(readFile(*this / "second"), "shared");
    EXPECT_EQ(fs::hard_link_count(*this / "second"), 1u);
    expectToLast(*volume_, served_);
}

} // namespace
} // namespace tavelin::test
