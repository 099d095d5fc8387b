// Extended attributes: "user.NAME" is the named stream NAME; other namespaces are not offered.
#include "hosts/fuse/protocol/requests.hpp"

#include <cerrno>
#include <optional>
#include <string>
#include <string_view>
#include <sys/xattr.h>

namespace tavelin::fusehost {

namespace {

constexpr std::string_view kPrefix = "user.";

// The stream of an attribute; absent for other namespaces. The kernel asks for
// "security.capability" before it writes, which must cost no more than this.
std::optional<std::string_view> streamOf(std::string_view attribute) {
    if (!attribute.starts_with(kPrefix)) {
        return std::nullopt;
    }
    return attribute.substr(kPrefix.size());
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

void get(fuse_req_t request, fuse_ino_t number, const char* name, size_t room) {
    answer(request, [&] {
        const std::optional<std::string_view> stream = streamOf(name);
        if (!stream) {
            fuse_reply_err(request, EOPNOTSUPP);
            return;
        }
        const ItemRef& item = itemOf(request, number);
        VolumeClient& volume = volumeOf(request).volume();
        // A stream may be of any size; read is only what the caller has room for.
        const Outcome<size_t> size = volume.xattrSize(item, *stream);
        if (size && (room == 0 || *size > room)) {
            replyBytes(request, nullptr, *size, room);
            return;
        }
        const Outcome<std::vector<std::byte>> value =
            size ? volume.getXattr(item, *stream) : size.error();
        if (!value) {
            fuse_reply_err(request, hostError(value.error()));
            return;
        }
        replyBytes(request, reinterpret_cast<const char*>(value->data()), value->size(), room);
    });
}

void list(fuse_req_t request, fuse_ino_t number, size_t room) {
    answer(request, [&] {
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

void set(fuse_req_t request, fuse_ino_t number, const char* name, const char* value, size_t size,
         int flags) {
    answer(request, [&] {
        const std::optional<std::string_view> stream = streamOf(name);
        if (!stream) {
            fuse_reply_err(request, EOPNOTSUPP);
            return;
        }
        auto policy = fskit::FSSetXattrPolicy::alwaysSet;
        if ((flags & XATTR_CREATE) != 0) {
            policy = fskit::FSSetXattrPolicy::mustCreate;
        } else if ((flags & XATTR_REPLACE) != 0) {
            policy = fskit::FSSetXattrPolicy::mustReplace;
        }
        replyResult(request, volumeOf(request).volume().setXattr(
                                 itemOf(request, number), *stream,
                                 {reinterpret_cast<const std::byte*>(value), size}, policy));
    });
}

void remove(fuse_req_t request, fuse_ino_t number, const char* name) {
    answer(request, [&] {
        const std::optional<std::string_view> stream = streamOf(name);
        if (!stream) {
            fuse_reply_err(request, EOPNOTSUPP);
            return;
        }
        replyResult(request,
                    volumeOf(request).volume().removeXattr(itemOf(request, number), *stream));
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
