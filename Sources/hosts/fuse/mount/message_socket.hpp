/// Two processes that talk over a pair of connected sockets which keep messages apart.
#pragma once

#include "platform/file_descriptor.hpp"

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tavelin::fusehost {

/// One end of the pair; move-only, closed on exec. Any thread may send and receive.
class MessageSocket {
  public:
    /// What is longer is cut off.
    static constexpr std::size_t kBytesMax = 64 << 10;
    static constexpr std::size_t kDescriptorsMax = 2;

    struct Message {
        std::string bytes;
        std::vector<FileDescriptor> descriptors; ///< the receiver's own
        Message();                               ///< with room for the largest
    };

    /// Throws std::system_error.
    [[nodiscard]] static std::pair<MessageSocket, MessageSocket> makePair();

    /// Sends one message, and a copy of each descriptor. With `wait` false it is dropped when the
    /// other end has not taken what came before. False when it was not sent.
    bool send(std::string_view bytes, bool wait,
              std::span<const FileDescriptor> descriptors = {}) const noexcept;
    /// Waits for a message; false once the other end is closed everywhere. A Message that was only
    /// received into has its room still, so that this needs no memory; else it throws
    /// std::bad_alloc, and the message stays.
    [[nodiscard]] bool receive(Message& into) const;

    [[nodiscard]] int descriptor() const noexcept { return socket_.get(); }

  private:
    explicit MessageSocket(int descriptor) : socket_(descriptor) {}

    FileDescriptor socket_;
};

} // namespace tavelin::fusehost
