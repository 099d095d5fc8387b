/// The broker of a mount: a small process that stays outside the sandbox of the server and does for
/// it the few things that need more than what the server holds open.
///
/// It writes the event log and the system log, makes this one mount, and unmounts it. It reads
/// nothing of the volume and opens no file that the server names. It ends with the server: when
/// that ends without a goodbye, the broker's last line in the log says so, and which system call
/// was the reason if one was.
#pragma once

#include "hosts/fuse/mount/kernel_mount.hpp"
#include "hosts/fuse/mount/message_socket.hpp"
#include "hosts/fuse/mount/mount_request.hpp"
#include "platform/mutex.hpp"

#include <memory>
#include <sys/types.h>

namespace tavelin::fusehost {

/// The server's side. Any thread may call anything but the constructor and the destructor.
class Broker {
  public:
    /// Forks the broker, and from then on leads this process's logs to it. To be called while there
    /// is no other thread; `request` has absolute paths, and `image` is what its image's path led
    /// to. Throws std::system_error.
    Broker(const MountRequest& request, int image);
    /// Waits until the broker has written what it was given, and has ended.
    ~Broker();
    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;

    /// See KernelMount::make.
    [[nodiscard]] std::vector<FileDescriptor> mount(bool readOnly);
    /// See KernelMount::takeAway. EPIPE when the broker is there no more.
    [[nodiscard]] int unmount(Unmounting how);

    /// Where the sandbox sends its ForbiddenCall.
    [[nodiscard]] int witness() const noexcept { return lines_->descriptor(); }

  private:
    /// Sends a call and waits for its result: 0 or a host errno. For a mount, with `opened`.
    int ask(std::string_view call, std::vector<FileDescriptor>* opened);

    pid_t process_ = -1;
    /// Lines for the logs, one way. Shared with the log that is installed, which may outlive this.
    std::shared_ptr<const MessageSocket> lines_;
    /// One call at a time. Nothing else is locked meanwhile: an unmount waits for requests that are
    /// being served.
    Mutex calling_;
    std::optional<MessageSocket> calls_ TAVELIN_GUARDED_BY(calling_);
};

} // namespace tavelin::fusehost
