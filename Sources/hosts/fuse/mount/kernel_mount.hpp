/// The kernel's side of a mount: made, found again, and taken away.
#pragma once

#include "hosts/fuse/mount/mount_request.hpp"
#include "platform/file_descriptor.hpp"
#include "platform/mount_info.hpp"

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tavelin::fusehost {

/// How a mount is to be taken away.
struct Unmounting {
    /// The directory goes at once, and those who use it finish.
    bool lazily = false;
    /// What is dirty in the kernel is written back first, for which somebody has to serve.
    bool served = true;
};

/// For one thread, of a process that serves nothing itself: the calls wait for the server's
/// answers.
class KernelMount {
  public:
    /// `image` is what the request's path led to when its server opened it: nothing else is
    /// mounted, whatever the path leads to later.
    KernelMount(const MountRequest& request, FileDescriptor image)
        : request_(request), image_(std::move(image)) {}

    /// Mounts, once. Answers the connection to the kernel (an open /dev/fuse) and, where an image
    /// is mounted over a loop device, that device, to be closed when the image is. Empty after
    /// saying on standard error why there is no mount.
    std::vector<FileDescriptor> make(bool readOnly);

    /// 0, also when it is gone or was never made; EBUSY when it is in use or another mount lies on
    /// top of it; or another host errno. Unmounts this mount only, wherever it is now.
    [[nodiscard]] int takeAway(Unmounting how);

  private:
    /// Finds the mount that was just made. False, after saying so, where it is of another device.
    bool identify(int connection, const std::string& source, const std::string& device,
                  const std::vector<MountEntry>& before);

    const MountRequest& request_;
    FileDescriptor image_;            // until it is made
    std::optional<MountEntry> entry_; // from then on, unless it was unmounted at once
};

} // namespace tavelin::fusehost
