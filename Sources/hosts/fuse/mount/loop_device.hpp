/// A loop device over an image file, so that the kernel mounts it like a disk.
///
/// For a mount over a block device the kernel passes syncfs on to us, and an unmount returns only
/// when we have written everything back. For a mount over nothing it does neither. The data itself
/// never goes through the loop device.
#pragma once

#include "platform/file_descriptor.hpp"

#include <filesystem>
#include <memory>
#include <string>

namespace tavelin::fusehost {

/// Owned by who mounts. Any thread may ask for its path.
class LoopDevice {
  public:
    /// Over an open image file, whose name is only a label. Null when the system has none to give
    /// (not an administrator, no loop devices, a container): the mount then goes without.
    static std::unique_ptr<LoopDevice> attach(int image, const std::filesystem::path& name,
                                              bool readOnly);

    /// The device node, such as "/dev/loop3", to mount over.
    const std::string& path() const { return path_; }
    /// Open, and still owned here.
    int descriptor() const noexcept { return device_.get(); }
    /// Once it is closed, the device frees itself as soon as the mount over it is gone too.
    FileDescriptor takeDevice() && { return std::move(device_); }

  private:
    LoopDevice(std::string path, FileDescriptor device)
        : path_(std::move(path)), device_(std::move(device)) {}

    const std::string path_;
    FileDescriptor device_;
};

} // namespace tavelin::fusehost
