/// A mount of ours as `tavelin umount` sees it: another process serves it, perhaps another user's.
#pragma once

#include "platform/file_descriptor.hpp"
#include "platform/mount_info.hpp"

namespace tavelin::fusehost {

/// Whether a mount is served by a process of ours, as its type says.
[[nodiscard]] bool isOurs(const MountEntry& mount) noexcept;

/// One thread at a time. It changes nothing of the mount by itself.
class ServedMount {
  public:
    /// Asks the server who it is. A server that does not answer, being dead or of another process
    /// namespace, is none.
    explicit ServedMount(const MountEntry& mount);

    /// Asks the server to write everything back; 0, or a host errno: ENOTCONN when it is dead.
    [[nodiscard]] int synchronize() const { return synchronizeError_; }
    /// Whether the file system is mounted elsewhere still, once this mount of it is gone: by a bind
    /// mount, in another namespace, or detached and in use.
    [[nodiscard]] bool isMountedElsewhere() const;
    /// Returns when the server has ended. False when it takes longer than any server that is not
    /// held by something.
    [[nodiscard]] bool awaitServer() const;

  private:
    const MountEntry mount_;
    FileDescriptor server_; // of its process, see pidfd_open(2); empty when it is not known
    int synchronizeError_ = 0;
};

} // namespace tavelin::fusehost
