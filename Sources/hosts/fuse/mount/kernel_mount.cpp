#include "hosts/fuse/mount/kernel_mount.hpp"

#include "hosts/fuse/libfuse.hpp"
#include "hosts/fuse/mount/complaint.hpp"
#include "hosts/fuse/mount/loop_device.hpp"
#include "hosts/fuse/mount/mount_table.hpp"
#include "platform/assert.hpp"

#include <fmt/format.h>

#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace tavelin::fusehost {

namespace {

constexpr int kReadAhead = 1024; // KiB: lets one request fetch as much as one can carry

// A value inside an option list: its commas and backslashes are not ours.
std::string withEscapedCommas(const std::string& value) {
    std::string safe;
    for (const char c : value) {
        if (c == ',' || c == '\\') {
            safe += '\\';
        }
        safe += c;
    }
    return safe;
}

// The options of the kernel's mount over `device`, if any.
std::string mountOptions(const MountRequest& request, const std::string& device, bool readOnly) {
    std::vector<std::string> options = request.kernelOptions;
    options.push_back("fsname=" +
                      withEscapedCommas(device.empty() ? request.image.string() : device));
    options.emplace_back("subtype=tavelin");
    if (readOnly) {
        options.emplace_back("ro");
    }
    // Owners and masks are for the kernel to check, and mean nothing while only the mounting user
    // gets in. To let others in is root's to decide.
    const bool owned = request.user || request.group || request.fileMask || request.directoryMask ||
                       request.permissions;
    if (owned) {
        options.emplace_back("default_permissions");
    }
    if (request.allowOther || (owned && ::geteuid() == 0)) {
        options.emplace_back("allow_other");
    }
    if (!device.empty()) {
        options.insert(options.end(), {"blkdev", "blksize=4096"});
    }
    return joined(options);
}

void complainOf(const MountRequest& request, std::string_view why) {
    complain(fmt::format("{}: {}", request.image.string(), why));
}

// Of an open block device, "major:minor"; empty for anything else.
std::string deviceNumber(int device) {
    struct stat status {};
    const bool isDevice = ::fstat(device, &status) == 0 && S_ISBLK(status.st_mode);
    return isDevice ? fmt::format("{}:{}", major(status.st_rdev), minor(status.st_rdev))
                    : std::string();
}

// The device number of the file system at the other end of an open /dev/fuse. Empty before Linux
// 6.18, which is the first to tell.
std::string connectionNumber(int connection) {
    constexpr std::string_view kLabel = "fuse_connection:";
    constexpr unsigned kMinorBits = 20;
    std::ifstream file(fmt::format("/proc/self/fdinfo/{}", connection));
    for (std::string word; file >> word;) {
        unsigned number = 0;
        if (word == kLabel && file >> number) {
            return fmt::format("{}:{}", number >> kMinorBits, number & ((1u << kMinorBits) - 1));
        }
    }
    return {};
}

// The kernel reads ahead 128 KiB by default. Only an administrator may raise that; without it,
// sequential reads take more requests.
void raiseReadAhead(const MountEntry& mount) {
    for (const char* suffix : {"", "-fuseblk"}) {
        std::ofstream setting("/sys/class/bdi/" + mount.device + suffix + "/read_ahead_kb");
        setting << kReadAhead << std::flush;
    }
}

} // namespace

std::vector<FileDescriptor> KernelMount::make(bool readOnly) {
    TAVELIN_ASSERT(!entry_ && image_);
    // Not kept any longer: the image's lock is the server's to release.
    const FileDescriptor image = std::move(image_);
    const std::vector<MountEntry> before = mountTable();
    std::vector<FileDescriptor> opened;
    if (before.empty()) {
        complainOf(request_, "the kernel's table of mounts cannot be read");
        return opened;
    }
    // The kernel mounts the block device itself, or a loop device over the image. It mounts nothing
    // but a name where it cannot have a device, as only root's mounts can.
    std::unique_ptr<LoopDevice> loop;
    std::string path, number;
    if (::geteuid() == 0) {
        number = deviceNumber(image.get());
        if (!number.empty()) {
            path = request_.image;
        } else if ((loop = LoopDevice::attach(image.get(), request_.image, readOnly))) {
            path = loop->path();
            number = deviceNumber(loop->descriptor());
        }
    }
    std::string program = "tavelin", dashO = "-o", options = mountOptions(request_, path, readOnly);
    char* words[] = {program.data(), dashO.data(), options.data(), nullptr};
    Arguments arguments(words);
    const fuse_lowlevel_ops nothing{};
    const Session session(fuse_session_new(&arguments, &nothing, sizeof nothing, nullptr));
    if (!session || fuse_session_mount(session.get(), request_.directory.c_str()) != 0) {
        return opened; // libfuse has said why
    }
    const int connection = fuse_session_fd(session.get());
    if (!identify(connection, path.empty() ? request_.image.string() : path, number, before)) {
        return opened;
    }
    if (entry_) { // else somebody has unmounted it already, which ends the serving at once
        raiseReadAhead(*entry_);
    }
    // The session closes its own descriptor: the mount lasts as long as the server has this one.
    opened.emplace_back(::fcntl(connection, F_DUPFD_CLOEXEC, 0));
    if (loop) {
        opened.push_back(std::move(*loop).takeDevice());
    }
    return opened;
}

bool KernelMount::identify(int connection, const std::string& source, const std::string& device,
                           const std::vector<MountEntry>& before) {
    MountEntry made;
    made.directory = request_.directory;
    made.source = source;
    const std::string number = connectionNumber(connection);
    made.device = number.empty() ? device : number;
    entry_ = findMade(made, before);
    if (!entry_ && number.empty()) { // it may be of another device than it should
        made.device.clear();
        entry_ = findMade(made, before);
    }
    // The kernel goes by the device's path, which may lead to another one by now.
    if (entry_ && !device.empty() && entry_->device != device) {
        complainOf(request_, "it was replaced by another device while it was being mounted");
        (void)takeAway({.lazily = true, .served = false}); // a failure leaves a dead mount
        return false;
    }
    return true;
}

int KernelMount::takeAway(Unmounting how) {
    if (!entry_) {
        return 0;
    }
    if (how.served) {
        if (const std::optional<MountEntry> now = findAgain(*entry_)) {
            const FileDescriptor root(now->directory.c_str(), O_RDONLY | O_DIRECTORY);
            (void)::syncfs(root.get()); // a failure is met again when the volume is closed
        }
    }
    const int failed = unmount(*entry_, how.lazily);
    if (failed == 0) {
        entry_.reset(); // its id may be another mount's from now on
    }
    return failed;
}

} // namespace tavelin::fusehost
