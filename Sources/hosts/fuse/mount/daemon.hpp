/// Leaving the terminal, but only once there is something to leave it for.
#pragma once

#include "platform/file_descriptor.hpp"

namespace tavelin::fusehost {

/// Splits off a process that serves, while the calling process waits until that reports success
/// or ends.
class Daemon {
  public:
    enum class Side { server, caller };

    /// Forks unless `foreground`; in both processes it returns. Throws std::system_error.
    explicit Daemon(bool foreground);

    /// Which of the two processes this is. In the foreground it is always the server.
    Side side() const noexcept { return side_; }

    /// The caller's side: waits, and answers the exit code.
    int awaitServer();

    /// The server's side: lets the caller go with success and detaches from its terminal. False
    /// when the caller waits no longer.
    [[nodiscard]] bool ready();

  private:
    Side side_ = Side::server;
    FileDescriptor nothing_; // the server's /dev/null, opened while it may open
    FileDescriptor pipe_;    // the caller reads, the server writes; empty in the foreground
};

} // namespace tavelin::fusehost
