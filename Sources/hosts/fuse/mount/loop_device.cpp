#include "hosts/fuse/mount/loop_device.hpp"

#include <cerrno>
#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utility>

namespace tavelin::fusehost {

namespace {

// Another program may take the free device between our asking for one and our taking it.
constexpr int kAttempts = 16;

// A free loop device bound to the image's descriptor; -1 when there is none.
int bindFreeDevice(int control, int image, const std::filesystem::path& name, bool readOnly,
                   std::string& path) {
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        const int number = ::ioctl(control, LOOP_CTL_GET_FREE);
        if (number < 0) {
            return -1;
        }
        path = "/dev/loop" + std::to_string(number);
        const int device = ::open(path.c_str(), (readOnly ? O_RDONLY : O_RDWR) | O_CLOEXEC);
        if (device == -1) {
            return -1;
        }
        loop_config config{};
        config.fd = static_cast<uint32_t>(image);
        config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
        if (readOnly) {
            config.info.lo_flags |= LO_FLAGS_READ_ONLY;
        }
        // Only a label; the array beyond it is zero already.
        name.native().copy(reinterpret_cast<char*>(config.info.lo_file_name), LO_NAME_SIZE - 1);
        if (::ioctl(device, LOOP_CONFIGURE, &config) == 0) {
            return device;
        }
        const bool taken = errno == EBUSY;
        ::close(device);
        if (!taken) {
            return -1;
        }
    }
    return -1;
}

} // namespace

std::unique_ptr<LoopDevice> LoopDevice::attach(const std::filesystem::path& image, bool readOnly) {
    const int control = ::open("/dev/loop-control", O_RDWR | O_CLOEXEC);
    const int file = ::open(image.c_str(), (readOnly ? O_RDONLY : O_RDWR) | O_CLOEXEC);
    std::string path;
    int device = -1;
    if (control != -1 && file != -1) {
        device = bindFreeDevice(control, file, image, readOnly, path);
    }
    for (const int fd : {control, file}) {
        if (fd != -1) {
            ::close(fd);
        }
    }
    if (device == -1) {
        return nullptr;
    }
    return std::unique_ptr<LoopDevice>(new LoopDevice(std::move(path), device));
}

LoopDevice::~LoopDevice() {
    ::close(fd_);
}

} // namespace tavelin::fusehost
