// Extended attributes: "user.NAME" is the named stream NAME; other namespaces are not offered.
#include "diagnostics/log.hpp"
#include "hosts/fuse/protocol/requests.hpp"
#include "hosts/fuse/protocol/server_identity.hpp"

#include <fmt/format.h>

#include <cerrno>
#include <linux/limits.h>
#include <string>
#include <string_view>
#include <sys/xattr.h>

namespace tavelin::fusehost {

namespace {

constexpr std::string_view kPrefix = "user.";

// Runs `work` with the name of the stream that an attribute is. Other namespaces are refused at
// once: the kernel asks for "security.capability" before it writes, which must cost no more.
template<typename Work>
void onStream(fuse_req_t request, std::string_view attribute, Work&& work) {
    answer(request, [&] {
        if (!attribute.starts_with(kPrefix) || !contextOf(request).streams) {
            fuse_reply_err(request, EOPNOTSUPP);
            return;
        }
        work(attribute.substr(kPrefix.size()));
    });
}

// Replies with the bytes, or with their count when the caller only asks for that.
void replyBytes(fuse_req_t request, const char* bytes, size_t count, size_t room) {
    if (room == 0) {
        fuse_reply_xattr(request, count);
    } else if (count > room) {
        fuse_reply_err(request, ERANGE);
    } else {
        fuse_reply_buf(request, bytes, count);
    }
}

// Programs that move files off the mount lose such a stream, and most do not say so.
void noteLongStream(Node& node, std::string_view stream, size_t size) {
    if (!node.longStreamTold.exchange(true)) {
        log().info(fmt::format("file {}: the stream {} has {} bytes, more than the {} of an "
                               "extended attribute; programs cannot copy it",
                               inodeNumber(node.id), stream, size, XATTR_SIZE_MAX));
    }
}

void getStream(fuse_req_t request, Node& node, std::string_view stream, size_t room) {
    VolumeClient& volume = volumeOf(request).volume();
    // A stream may be of any size; read is only what the caller has room for.
    const Outcome<size_t> size = volume.xattrSize(node.item, stream);
    if (size && *size > XATTR_SIZE_MAX) {
        noteLongStream(node, stream, *size);
    }
    if (size && (room == 0 || *size > room)) {
        replyBytes(request, nullptr, *size, room);
        return;
    }
    const Outcome<std::vector<std::byte>> value =
        size ? volume.getXattr(node.item, stream) : size.error();
    if (!value) {
        fuse_reply_err(request, hostError(value.error()));
        return;
    }
    replyBytes(request, reinterpret_cast<const char*>(value->data()), value->size(), room);
}

void get(fuse_req_t request, fuse_ino_t number, const char* name, size_t room) {
    if (number == FUSE_ROOT_ID && std::string_view(name) == kServerAttribute) {
        answer(request, [&] {
            const std::string identity = serverIdentity();
            replyBytes(request, identity.data(), identity.size(), room);
        });
        return;
    }
    onStream(request, name, [&](std::string_view stream) {
        getStream(request, volumeOf(request).node(number), stream, room);
    });
}

void list(fuse_req_t request, fuse_ino_t number, size_t room) {
    answer(request, [&] {
        if (!contextOf(request).streams) {
            replyBytes(request, nullptr, 0, room);
            return;
        }
        const ItemRef& item = itemOf(request, number);
        const Outcome<std::vector<std::string>> names = volumeOf(request).volume().listXattrs(item);
        if (!names) {
            fuse_reply_err(request, hostError(names.error()));
            return;
        }
        std::string all;
        for (const std::string& name : *names) {
            all.append(kPrefix).append(name).push_back('\0');
        }
        replyBytes(request, all.data(), all.size(), room);
    });
}

fskit::FSSetXattrPolicy policyOf(int flags) {
    if ((flags & XATTR_CREATE) != 0) {
        return fskit::FSSetXattrPolicy::mustCreate;
    }
    return (flags & XATTR_REPLACE) != 0 ? fskit::FSSetXattrPolicy::mustReplace
                                        : fskit::FSSetXattrPolicy::alwaysSet;
}

void set(fuse_req_t request, fuse_ino_t number, const char* name, const char* value, size_t size,
         int flags) {
    onStream(request, name, [&](std::string_view stream) {
        const VolumeClient::Bytes bytes{reinterpret_cast<const std::byte*>(value), size};
        replyResult(request, volumeOf(request).volume().setXattr(itemOf(request, number), stream,
                                                                 bytes, policyOf(flags)));
    });
}

void remove(fuse_req_t request, fuse_ino_t number, const char* name) {
    onStream(request, name, [&](std::string_view stream) {
        replyResult(request,
                    volumeOf(request).volume().removeXattr(itemOf(request, number), stream));
    });
}

} // namespace

void addXattrRequests(fuse_lowlevel_ops& table) {
    table.getxattr = get;
    table.listxattr = list;
    table.setxattr = set;
    table.removexattr = remove;
}

} // namespace tavelin::fusehost
