// What is mounted or held elsewhere is not opened, whoever holds it.
#include "hosting/module_host.hpp"
#include "support/run_process.hpp"
#include "support/sample_volume.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tavelin::test {
namespace {

// Uses of an image, which end with this object, the last one first.
class Uses {
  public:
    explicit Uses(const std::string& used) : image(used) {}
    Uses(const Uses&) = delete;
    Uses& operator=(const Uses&) = delete;
    ~Uses() {
        for (; !ends_.empty(); ends_.pop_back()) {
            ends_.back()();
        }
    }

    // ntfs-3g mounts what was to be opened so far.
    Uses& mount(const std::string& options = "rw") {
        auto directory = std::make_shared<TempDirectory>();
        runOrThrow({"ntfs-3g", "-o", options, opened, directory->path()});
        opened = image;
        return until([directory] { ::umount2(directory->path().c_str(), 0); });
    }
    // A loop device over the image, which is to be opened now.
    Uses& loop(const std::vector<std::string>& options = {}) {
        std::vector<std::string> words{"losetup", "--find", "--show", image};
        words.insert(words.end(), options.begin(), options.end());
        opened = runOrThrow(words);
        opened.pop_back(); // the line's end
        return until([device = opened] { (void)run({"losetup", "-d", device}); });
    }
    Uses& until(std::function<void()> end) {
        ends_.push_back(std::move(end));
        return *this;
    }

    const std::string image;
    std::string opened = image; // what a row tries to open

  private:
    std::vector<std::function<void()>> ends_;
};

std::string outcome(const std::string& path, bool readOnly) {
    try {
        (void)ModuleHost::openImage(path, {}, {.readOnly = readOnly});
        return "opened";
    } catch (const OpenError& error) {
        return error.reason() == OpenError::Reason::inUse ? "in use" : error.what();
    }
}

TEST(ImageUse, IsRefusedBesideWhateverMayChangeIt) {
    if (::geteuid() != 0 || ::access("/dev/loop-control", R_OK | W_OK) != 0) {
        GTEST_SKIP() << "only root attaches and mounts";
    }
    const struct {
        const char* what;
        std::function<void(Uses&)> begin;
        const char* reading;
        const char* changing;
    } kRows[] = {
        {"nobody", [](Uses&) {}, "opened", "opened"},
        {"ntfs-3g", [](Uses& uses) { uses.mount(); }, "in use", "in use"},
        {"ntfs-3g, read-only", [](Uses& uses) { uses.mount("ro"); }, "opened", "in use"},
        {"a mounted loop device", [](Uses& uses) { uses.loop().mount(); }, "in use", "in use"},
        {"a fresh loop device over what ntfs-3g has mounted",
         [](Uses& uses) { uses.mount().loop(); }, "in use", "in use"},
        {"a fresh loop device beside a mounted one", [](Uses& uses) { uses.loop().mount().loop(); },
         "in use", "in use"},
        {"a loop device over another part of the file",
         [](Uses& uses) {
             std::filesystem::resize_file(uses.opened, 16 << 20);
             uses.loop({"--offset", "8388608"}).loop({"--sizelimit", "8388608"});
         },
         "opened", "opened"},
        {"a loop device that only reads",
         [](Uses& uses) { uses.opened = uses.loop({"--read-only"}).image; }, "opened", "in use"},
        {"a program that may write",
         [](Uses& uses) {
             const int fd = ::open(uses.opened.c_str(), O_RDWR | O_CLOEXEC);
             uses.until([fd] { ::close(fd); });
         },
         "in use", "in use"},
        {"a fresh loop device over what this program has open",
         [](Uses& uses) {
             std::shared_ptr<ModuleHost> host = ModuleHost::openImage(uses.opened);
             uses.until([host] {}).loop();
         },
         "in use", "in use"},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.what);
        const SampleVolume volume({.bytes = 8 << 20});
        Uses uses(volume.image());
        row.begin(uses);
        EXPECT_EQ(outcome(uses.opened, true), row.reading);
        EXPECT_EQ(outcome(uses.opened, false), row.changing);
    }
}

TEST(ImageUse, APipeIsNoImageAndIsNotWaitedFor) {
    const TempDirectory directory;
    ASSERT_EQ(::mkfifo((directory / "pipe").c_str(), 0600), 0);
    EXPECT_THROW((void)ModuleHost::openImage(directory / "pipe"), OpenError);
}

} // namespace
} // namespace tavelin::test
