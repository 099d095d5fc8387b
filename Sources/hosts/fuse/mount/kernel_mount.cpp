#include "hosts/fuse/mount/kernel_mount.hpp"

#include "hosts/fuse/libfuse.hpp"
#include "hosts/fuse/mount/loop_device.hpp"
#include "hosts/fuse/mount/mount_table.hpp"
#include "platform/assert.hpp"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <unistd.h>

namespace tavelin::fusehost {

namespace fs = std::filesystem;

namespace {

constexpr int kReadAhead = 1024; // KiB: lets one request fetch as much as one can carry

// A value inside an option list: its commas and backslashes are not ours.
std::string escaped(const std::string& value) {
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
    options.push_back("fsname=" + escaped(device.empty() ? request.image.string() : device));
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
    TAVELIN_ASSERT(entry_.id == 0);
    // The kernel mounts the block device itself, or a loop device over the image. It mounts nothing
    // but a name where it cannot have a device, as only root's mounts can.
    std::unique_ptr<LoopDevice> loop;
    std::string device;
    std::error_code unknown;
    if (::geteuid() == 0 && fs::is_block_file(request_.image, unknown)) {
        device = request_.image;
    } else if (::geteuid() == 0) {
        loop = LoopDevice::attach(request_.image, readOnly);
        device = loop ? loop->path() : std::string();
    }
    std::string program = "tavelin", dashO = "-o",
                options = mountOptions(request_, device, readOnly);
    char* words[] = {program.data(), dashO.data(), options.data(), nullptr};
    fuse_args arguments = FUSE_ARGS_INIT(3, words);
    const fuse_lowlevel_ops nothing{};
    const Session session(fuse_session_new(&arguments, &nothing, sizeof nothing, nullptr));
    std::vector<FileDescriptor> opened;
    if (!session || fuse_session_mount(session.get(), request_.directory.c_str()) != 0) {
        return opened; // libfuse has said why
    }
    // Somebody may have covered or unmounted it already. The latter ends the serving at once.
    entry_ = findOwnMount(request_.directory).value_or(MountEntry());
    raiseReadAhead(entry_);
    // The session closes its own descriptor: the mount lasts as long as the server has this one.
    opened.emplace_back(::fcntl(fuse_session_fd(session.get()), F_DUPFD_CLOEXEC, 0));
    if (loop) {
        opened.push_back(std::move(*loop).takeDevice());
    }
    return opened;
}

int KernelMount::takeAway(Unmounting how) {
    if (how.served) {
        if (const std::optional<MountEntry> now = findAgain(entry_)) {
            const FileDescriptor root(now->directory.c_str(), O_RDONLY | O_DIRECTORY);
            (void)::syncfs(root.get()); // a failure is met again when the volume is closed
        }
    }
    return unmount(entry_, how.lazily);
}

} // namespace tavelin::fusehost
