#include "hosts/fuse/mount/loop_device.hpp"

#include <cerrno>
#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <utility>

namespace tavelin::fusehost {

namespace {

// Another program may take the free device between our asking for one and our taking it.
constexpr int kAttempts = 16;

// A free loop device bound to the image's descriptor; empty when there is none.
FileDescriptor bindFreeDevice(int control, int image, const std::filesystem::path& name,
                              bool readOnly, std::string& path) {
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        const int number = ::ioctl(control, LOOP_CTL_GET_FREE);
        if (number < 0) {
            return {};
        }
        path = "/dev/loop" + std::to_string(number);
        FileDescriptor device(path.c_str(), readOnly ? O_RDONLY : O_RDWR);
        if (!device) {
            return {};
        }
        loop_config config{};
        config.fd = static_cast<uint32_t>(image);
        config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
        if (readOnly) {
            config.info.lo_flags |= LO_FLAGS_READ_ONLY;
        }
        // Only a label; the array beyond it is zero already.
        name.native().copy(reinterpret_cast<char*>(config.info.lo_file_name), LO_NAME_SIZE - 1);
        if (::ioctl(device.get(), LOOP_CONFIGURE, &config) == 0) {
            return device;
        }
        if (errno != EBUSY) {
            return {};
        }
    }
    return {};
}

} // namespace

std::unique_ptr<LoopDevice> LoopDevice::attach(int image, const std::filesystem::path& name,
                                               bool readOnly) {
    const FileDescriptor control("/dev/loop-control", O_RDWR);
    // The same file, whatever its path leads to by now. Opened anew: the device would hold on to
    // the lock that belongs to the other opening.
    const std::string same = "/proc/self/fd/" + std::to_string(image);
    const FileDescriptor file(same.c_str(), readOnly ? O_RDONLY : O_RDWR);
    if (!control || !file) {
        return nullptr;
    }
    std::string path;
    FileDescriptor device = bindFreeDevice(control.get(), file.get(), name, readOnly, path);
    if (!device) {
        return nullptr;
    }
    return std::unique_ptr<LoopDevice>(new LoopDevice(std::move(path), std::move(device)));
}

} // namespace tavelin::fusehost
