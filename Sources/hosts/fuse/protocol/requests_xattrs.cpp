// Extended attributes: "user.NAME" is the named stream NAME, and "system.ntfs_crtime" the time when
// an item was made, as the driver ntfs-3g has it. Others are not offered.
#include "diagnostics/log.hpp"
#include "hosts/fuse/protocol/requests.hpp"
#include "hosts/fuse/protocol/server_identity.hpp"

#include <fmt/format.h>

#include <array>
#include <cerrno>
#include <linux/limits.h>
#include <optional>
#include <string>
#include <string_view>
#include <sys/xattr.h>

namespace tavelin::fusehost {

namespace {

constexpr std::string_view kPrefix = "user.";

// When an item was made, which this libfuse has no request for: eight bytes, little endian, in
// units of 100 nanoseconds since 1601-01-01 UTC. Not listed, so that copies do not take it along.
constexpr std::string_view kBirthTime = "system.ntfs_crtime";
constexpr int64_t kUnitsPerSecond = 10'000'000;
constexpr int64_t kUnitsUntil1970 = 116'444'736'000'000'000;

using BirthTime = std::array<char, sizeof(int64_t)>;

BirthTime birthTimeOf(const timespec& time) {
    const auto units =
        static_cast<uint64_t>(kUnitsUntil1970 + time.tv_sec * kUnitsPerSecond + time.tv_nsec / 100);
    BirthTime bytes{};
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<char>(units >> (8 * i));
    }
    return bytes;
}

// Absent for what is no time that NTFS knows.
std::optional<timespec> timeIn(std::string_view bytes) {
    uint64_t units = 0;
    for (size_t i = 0; i < bytes.size(); ++i) {
        units |= uint64_t{static_cast<unsigned char>(bytes[i])} << (8 * i);
    }
    if (bytes.size() != sizeof units || units > INT64_MAX) {
        return std::nullopt;
    }
    const int64_t since1970 = static_cast<int64_t>(units) - kUnitsUntil1970;
    const int64_t rest = ((since1970 % kUnitsPerSecond) + kUnitsPerSecond) % kUnitsPerSecond;
    return timespec{(since1970 - rest) / kUnitsPerSecond, static_cast<long>(rest * 100)};
}

// The kernel checks nothing for this attribute, so its own rule for times is applied here.
void setBirthTime(fuse_req_t request, fuse_ino_t number, std::string_view value, int flags) {
    answer(request, [&] {
        MountedVolume& volume = volumeOf(request);
        const Node& node = volume.node(number);
        const auto attributes = volume.attributes(node);
        const uid_t user = fuse_req_ctx(request)->uid;
        const std::optional<timespec> time = timeIn(value);
        if (!attributes) {
            fuse_reply_err(request, hostError(attributes.error()));
        } else if (user != 0 && user != statusOf(request, *attributes).st_uid) {
            fuse_reply_err(request, EPERM);
        } else if (!time) {
            fuse_reply_err(request, EINVAL);
        } else if ((flags & XATTR_CREATE) != 0) {
            fuse_reply_err(request, EEXIST);
        } else {
            fskit::FSItemSetAttributesRequest changes;
            changes.setBirthTime(*time);
            replyResult(request, Outcome<void>::of(volume.setAttributes(node, changes)));
        }
    });
}

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

void getBirthTime(fuse_req_t request, fuse_ino_t number, size_t room) {
    answer(request, [&] {
        MountedVolume& volume = volumeOf(request);
        const auto attributes = volume.attributes(volume.node(number));
        if (!attributes) {
            fuse_reply_err(request, hostError(attributes.error()));
            return;
        }
        const BirthTime bytes = birthTimeOf(attributes->birthTime());
        replyBytes(request, bytes.data(), bytes.size(), room);
    });
}

void get(fuse_req_t request, fuse_ino_t number, const char* name, size_t room) {
    if (number == FUSE_ROOT_ID && std::string_view(name) == kServerAttribute) {
        answer(request, [&] {
            const std::string& identity = contextOf(request).server;
            replyBytes(request, identity.data(), identity.size(), room);
        });
        return;
    }
    if (std::string_view(name) == kBirthTime) {
        getBirthTime(request, number, room);
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
    if (std::string_view(name) == kBirthTime) {
        setBirthTime(request, number, {value, size}, flags);
        return;
    }
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
