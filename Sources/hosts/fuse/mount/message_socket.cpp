#include "hosts/fuse/mount/message_socket.hpp"

#include "platform/assert.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <system_error>

namespace tavelin::fusehost {

namespace {

// Room for the descriptors of one message, as the kernel lays them out.
struct alignas(cmsghdr) DescriptorRoom {
    char bytes[CMSG_SPACE(MessageSocket::kDescriptorsMax * sizeof(int))] = {};
};

void takeDescriptors(msghdr& header, std::vector<FileDescriptor>& into) {
    for (cmsghdr* part = CMSG_FIRSTHDR(&header); part != nullptr;
         part = CMSG_NXTHDR(&header, part)) {
        if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) {
            continue;
        }
        const size_t count = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; ++i) {
            int number = -1;
            std::memcpy(&number, CMSG_DATA(part) + i * sizeof number, sizeof number);
            into.emplace_back(number);
        }
    }
}

} // namespace

std::pair<MessageSocket, MessageSocket> MessageSocket::makePair() {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        throw std::system_error(errno, std::generic_category(), "socketpair");
    }
    return {MessageSocket(ends[0]), MessageSocket(ends[1])};
}

bool MessageSocket::send(std::string_view bytes, bool wait,
                         std::span<const FileDescriptor> descriptors) const noexcept {
    TAVELIN_ASSERT(!bytes.empty() && descriptors.size() <= kDescriptorsMax);
    // The kernel does not write through this pointer.
    iovec text{const_cast<char*>(bytes.data()), std::min(bytes.size(), kBytesMax)};
    msghdr header{};
    header.msg_iov = &text;
    header.msg_iovlen = 1;
    DescriptorRoom room;
    if (!descriptors.empty()) {
        header.msg_control = room.bytes;
        header.msg_controllen = CMSG_SPACE(descriptors.size() * sizeof(int));
        cmsghdr* const part = CMSG_FIRSTHDR(&header);
        part->cmsg_level = SOL_SOCKET;
        part->cmsg_type = SCM_RIGHTS;
        part->cmsg_len = CMSG_LEN(descriptors.size() * sizeof(int));
        for (size_t i = 0; i < descriptors.size(); ++i) {
            const int number = descriptors[i].get();
            std::memcpy(CMSG_DATA(part) + i * sizeof number, &number, sizeof number);
        }
    }
    const int flags = MSG_NOSIGNAL | (wait ? 0 : MSG_DONTWAIT);
    return uninterrupted([&] { return ::sendmsg(socket_.get(), &header, flags); }) > 0;
}

MessageSocket::Message::Message() {
    bytes.reserve(kBytesMax);
    descriptors.reserve(kDescriptorsMax);
}

bool MessageSocket::receive(Message& into) const {
    into.bytes.resize(kBytesMax);
    into.descriptors.clear();
    into.descriptors.reserve(kDescriptorsMax);
    iovec text{into.bytes.data(), into.bytes.size()};
    DescriptorRoom room;
    msghdr header{};
    header.msg_iov = &text;
    header.msg_iovlen = 1;
    header.msg_control = room.bytes;
    header.msg_controllen = sizeof room.bytes;
    const ssize_t got =
        uninterrupted([&] { return ::recvmsg(socket_.get(), &header, MSG_CMSG_CLOEXEC); });
    if (got <= 0) { // no message is empty
        return false;
    }
    into.bytes.resize(static_cast<size_t>(got));
    takeDescriptors(header, into.descriptors);
    return true;
}

} // namespace tavelin::fusehost
