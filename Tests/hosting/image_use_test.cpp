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

// A use of the image that lasts as long as this object.
struct Use {
    std::string device{}; // that a row tries to open instead of the image
    std::function<void()> end;
    Use(std::string opened, std::function<void()> atEnd)
        : device(std::move(opened)), end(std::move(atEnd)) {}
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;
    ~Use() { end(); }
};
using UsePointer = std::unique_ptr<Use>;

UsePointer driverMount(const std::string& source, const std::string& options = "rw") {
    auto directory = std::make_shared<TempDirectory>();
    runOrThrow({"ntfs-3g", "-o", options, source, directory->path()});
    return std::make_unique<Use>("", [directory] { ::umount2(directory->path().c_str(), 0); });
}

UsePointer loop(const std::string& image, std::vector<std::string> options = {}) {
    std::vector<std::string> words{"losetup", "--find", "--show", image};
    words.insert(words.end(), options.begin(), options.end());
    std::string device = runOrThrow(words);
    device.pop_back(); // the line's end
    return std::make_unique<Use>(device, [device] { (void)run({"losetup", "-d", device}); });
}

// Both ends of `first` and `second`, and the device of the second.
UsePointer both(UsePointer first, UsePointer second) {
    std::shared_ptr<Use> outer = std::move(first);
    std::shared_ptr<Use> inner = std::move(second);
    const std::string device = inner->device;
    return std::make_unique<Use>(device, [outer, inner]() mutable {
        inner.reset();
        outer.reset();
    });
}

UsePointer mountedLoop(const std::string& image) {
    UsePointer device = loop(image);
    const std::string path = device->device;
    return both(std::move(device), driverMount(path));
}

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
        std::function<UsePointer(const std::string& image)> begin;
        const char* reading;
        const char* changing;
    } kRows[] = {
        {"nobody", [](auto&) { return std::make_unique<Use>("", [] {}); }, "opened", "opened"},
        {"ntfs-3g", [](auto& image) { return driverMount(image); }, "in use", "in use"},
        {"ntfs-3g, read-only", [](auto& image) { return driverMount(image, "ro"); }, "opened",
         "in use"},
        {"a mounted loop device", [](auto& image) { return mountedLoop(image); }, "in use",
         "in use"},
        {"a fresh loop device over what ntfs-3g has mounted",
         [](auto& image) { return both(driverMount(image), loop(image)); }, "in use", "in use"},
        {"a fresh loop device beside a mounted one",
         [](auto& image) { return both(mountedLoop(image), loop(image)); }, "in use", "in use"},
        {"a loop device over another part of the file",
         [](auto& image) {
             return both(loop(image, {"--offset", "8388608"}),
                         loop(image, {"--sizelimit", "8388608"}));
         },
         "opened", "opened"},
        {"a loop device that only reads",
         [](auto& image) {
             UsePointer use = loop(image, {"--read-only"});
             use->device.clear();
             return use;
         },
         "opened", "in use"},
        {"a program that may write",
         [](auto& image) {
             const int fd = ::open(image.c_str(), O_RDWR | O_CLOEXEC);
             return std::make_unique<Use>("", [fd] { ::close(fd); });
         },
         "in use", "in use"},
        {"a fresh loop device over what this program has open",
         [](auto& image) {
             auto host =
                 std::make_shared<std::unique_ptr<ModuleHost>>(ModuleHost::openImage(image));
             return both(std::make_unique<Use>("", [host] { host->reset(); }), loop(image));
         },
         "in use", "in use"},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.what);
        const SampleVolume volume({.bytes = 8 << 20});
        const std::string image = volume.image();
        if (std::string(row.what).ends_with("part of the file")) {
            std::filesystem::resize_file(image, 16 << 20);
        }
        const UsePointer use = row.begin(image);
        const std::string& opened = use->device.empty() ? image : use->device;
        EXPECT_EQ(outcome(opened, true), row.reading);
        EXPECT_EQ(outcome(opened, false), row.changing);
    }
}

TEST(ImageUse, APipeIsNoImageAndIsNotWaitedFor) {
    const TempDirectory directory;
    ASSERT_EQ(::mkfifo((directory / "pipe").c_str(), 0600), 0);
    EXPECT_THROW((void)ModuleHost::openImage(directory / "pipe"), OpenError);
}

} // namespace
} // namespace tavelin::test
