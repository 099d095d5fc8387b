/// The broker's own side, and the words that it and the server exchange.
#pragma once

#include "hosts/fuse/mount/message_socket.hpp"
#include "hosts/fuse/mount/mount_request.hpp"
#include "hosts/fuse/sandbox/sandbox.hpp"

#include <cstdint>
#include <string_view>

namespace tavelin::fusehost::broker {

/// The first byte of a message to the logs; the text follows. A ForbiddenCall is one as well. An
/// event's line ends with a line feed, in the message that begins it or in one that goes on.
enum class Line : char { event = 'e', moreOfEvent = '+', info = 'i', error = 'E', goodbye = 'g' };
static_assert(static_cast<char>(Line::goodbye) != ForbiddenCall::kMark);

/// Goes ahead of the Result of a mount that was tried, with its descriptors.
inline constexpr std::string_view kOpened = "opened";
/// A call of the server; answered by a Result. Of types that have a value for any bytes: the server
/// may be in wrong hands.
struct Call {
    enum class Kind : uint8_t { mount, unmount };
    Kind kind = Kind::mount;
    uint8_t readOnly = 0; ///< 0 or not, of a mount
    uint8_t lazily = 0;   ///< of an unmount, see Unmounting
    uint8_t served = 0;
};
struct Result {
    int32_t error = 0; ///< a host errno
};

/// The broker's process, from its fork to its end. Closes every descriptor but the standard ones,
/// the image and the two sockets.
[[noreturn]] void serve(const MountRequest& request, int image, const MessageSocket& lines,
                        const MessageSocket& calls);

} // namespace tavelin::fusehost::broker
