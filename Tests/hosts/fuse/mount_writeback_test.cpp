// What the kernel keeps of a file and writes later: mapped memory, and with `writeback` everything.
#include "hosts/fuse/served_volume.hpp"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace tavelin::test {
namespace {

namespace fs = std::filesystem;

constexpr size_t kSize = 300'000; // of "old"; many pages, and no whole number of them

class MountWriteback : public MountTest {
  protected:
    // Mounts with what is gathered and the file "old" on it.
    void SetUp() override {
        MountTest::SetUp();
        if (served_) {
            mount("writeback");
            writeFile(*this / "old", std::string(kSize, 'o'));
        }
    }
    static void write(int file, const std::string& text) {
        EXPECT_EQ(::write(file, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    static void write(int file, const std::string& text, off_t at) {
        EXPECT_EQ(::pwrite(file, text.data(), text.size(), at), static_cast<ssize_t>(text.size()));
    }
};

std::string replaced(size_t at, const std::string& text) {
    std::string all(kSize, 'o');
    all.resize(std::max(all.size(), at + text.size()));
    return all.replace(at, text.size(), text);
}

// Each piece of work is done with the file open, and looked at with it open, closed, and in a later
// mount.
TEST_F(MountWriteback, GatheredWritesAreTheFile) {
    const std::string block(5'000, 'n');
    const struct Work {
        const char* what;
        int flags;
        std::function<void(int file)> work;
        std::string expected;
    } cases[] = {
        {"a part of a page, written only", O_WRONLY, [](int f) { write(f, "new", 9'000); },
         replaced(9'000, "new")},
        {"at the end, twice", O_WRONLY | O_APPEND,
         [this](int f) {
             write(f, "first");
             write(Descriptor(*this / "old", O_WRONLY | O_APPEND), "second");
         },
         replaced(kSize, "firstsecond")},
        {"behind a hole", O_RDWR,
         [](int f) {
             EXPECT_EQ(::ftruncate(f, kSize + 500'000), 0);
             write(f, "new", kSize + 200'000);
             EXPECT_EQ(::lseek(f, kSize + 200'000, SEEK_DATA), off_t{kSize} + 200'000);
         },
         replaced(kSize + 200'000, "new").append(299'997, '\0')},
        {"cut off in what is gathered", O_RDWR,
         [&](int f) {
             write(f, block, kSize);
             EXPECT_EQ(::ftruncate(f, kSize + 100), 0);
         },
         replaced(kSize, block.substr(0, 100))},
        {"a hole made in what is gathered", O_RDWR,
         [&](int f) {
             write(f, block, 0);
             EXPECT_EQ(::fallocate(f, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 1'000, 3'000), 0);
         },
         replaced(0, block).replace(1'000, 3'000, 3'000, '\0')},
        {"replaced by its own copy", O_RDWR,
         [&](int f) {
             write(f, block, 70'000);
             fs::copy_file(*this / "old", *this / "copy");
             fs::rename(*this / "copy", *this / "old");
             write(f, "to nobody", 0);
         },
         replaced(70'000, block)},
    };
    for (const Work& c : cases) {
        SCOPED_TRACE(c.what);
        mount("writeback");
        writeFile(*this / "old", std::string(kSize, 'o'));
        {
            const Descriptor file(*this / "old", c.flags);
            c.work(file);
            EXPECT_TRUE(readFile(*this / "old") == c.expected) << "while it is open";
        }
        EXPECT_TRUE(readFile(*this / "old") == c.expected) << "once it is closed";
        mount();
        EXPECT_TRUE(readFile(*this / "old") == c.expected) << "in a later mount";
    }
}

// A time that a program sets is not overtaken by the time at which its writes arrive.
TEST_F(MountWriteback, TimesAreThoseOfTheProgram) {
    const timespec wanted[] = {{1'000'000'000, 0}, {1'100'000'000, 123'456'700}};
    {
        const Descriptor file(*this / "old", O_WRONLY);
        write(file, "new", 0);
        EXPECT_EQ(::futimens(file, wanted), 0);
    }
    struct stat written {};
    {
        const Descriptor file(*this / "new", O_WRONLY | O_CREAT);
        write(file, "new", 0);
        written = file.status();
    }
    mount();
    EXPECT_EQ(statusOf("old").st_mtim.tv_sec, wanted[1].tv_sec);
    EXPECT_EQ(statusOf("old").st_mtim.tv_nsec, wanted[1].tv_nsec);
    EXPECT_EQ(statusOf("new").st_mtim.tv_sec, written.st_mtim.tv_sec);
    EXPECT_EQ(statusOf("new").st_mtim.tv_nsec, written.st_mtim.tv_nsec);
}

// What was synchronised, mapped memory too, outlives the server; what was closed, an unmount.
TEST_F(MountWriteback, ReachesTheVolumeWhenItIsPromised) {
    {
        const Descriptor file(*this / "old", O_RDWR);
        write(file, "synchronised", 100);
        EXPECT_EQ(::fsync(file), 0);
        void* const map = ::mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        ASSERT_NE(map, MAP_FAILED);
        std::memcpy(static_cast<char*>(map) + 200'000, "mapped", 6);
        EXPECT_EQ(::msync(map, kSize, MS_SYNC), 0);
        ::munmap(map, kSize);
        write(Descriptor(*this / "whole", O_WRONLY | O_CREAT | O_SYNC), "at once");
        ::kill(served_->server(), SIGKILL); // before the file is closed
    }
    served_->crash();
    mount("writeback");
    EXPECT_TRUE(readFile(*this / "old") ==
                replaced(100, "synchronised").replace(200'000, 6, "mapped"));
    EXPECT_EQ(readFile(*this / "whole"), "at once");
    writeFile(*this / "closed", "closed");
    EXPECT_EQ(::kill(served_->server(), SIGTERM), 0);
    EXPECT_EQ(served_->awaitEnd(), 0);
    mount();
    EXPECT_EQ(readFile(*this / "closed"), "closed");
}

// No program waits for these writes, so the error has to find one: that a part was written does not
// count.
TEST_F(MountWriteback, ALateErrorIsHeardOf) {
    constexpr off_t kMapped = 1 << 20; // which the kernel sends as one
    for (const std::string options : {"", "writeback"}) {
        SCOPED_TRACE(options);
        mountFresh(24 * kMiB);
        EXPECT_EQ(::ftruncate(Descriptor(*this / "sparse", O_RDWR | O_CREAT), kMapped), 0);
        const off_t size = fillVolume(false);
        EXPECT_EQ(::truncate(path("large").c_str(), size - kMapped / 2 - 100'000), 0);
        mount(options);
        const Descriptor sparse(*this / "sparse", O_RDWR);
        void* const map = ::mmap(nullptr, kMapped, PROT_READ | PROT_WRITE, MAP_SHARED, sparse, 0);
        ASSERT_NE(map, MAP_FAILED);
        std::memset(map, 'm', kMapped);
        EXPECT_EQ(errorOf(::msync(map, kMapped, MS_SYNC)), ENOSPC);
        ::munmap(map, kMapped);
    }
    const std::string block(64 << 10, 'b');
    for (const auto& [what, finish] :
         {std::pair("fsync", &::fsync), std::pair("close", &::close)}) {
        SCOPED_TRACE(what);
        mountFresh(24 * kMiB, "writeback");
        FileDescriptor file(path("file").c_str(), O_WRONLY | O_CREAT, 0666);
        for (int i = 0; i < 512; ++i) {
            write(file.get(), block);
        }
        EXPECT_EQ(errorOf(finish(file.get())), ENOSPC);
        if (finish == &::close) {
            (void)file.release();
        }
    }
    fs::remove(*this / "file");
    writeFile(*this / "after", "after");
    EXPECT_EQ(readFile(*this / "after"), "after");
}

} // namespace
} // namespace tavelin::test
