#include "hosts/cli/copy/host_streams.hpp"

#include "hosts/cli/copy/transfer.hpp"

#include <cerrno>
#include <string_view>
#include <sys/xattr.h>

namespace tavelin::cli {
namespace {

constexpr std::string_view kPrefix = "user.";

#ifdef __APPLE__
// macOS has no namespaces: every attribute is the user's.
ssize_t listAttributes(int file, char* list, std::size_t size) {
    return flistxattr(file, list, size, 0);
}
ssize_t getAttribute(int file, const char* name, void* value, std::size_t size) {
    return fgetxattr(file, name, value, size, 0, 0);
}
int setAttribute(int file, const char* name, const void* value, std::size_t size) {
    return fsetxattr(file, name, value, size, 0, 0);
}
int removeAttribute(int file, const char* name) {
    return fremovexattr(file, name, 0);
}
constexpr int kNoAttribute = ENOATTR;
#else
ssize_t listAttributes(int file, char* list, std::size_t size) {
    return flistxattr(file, list, size);
}
ssize_t getAttribute(int file, const char* name, void* value, std::size_t size) {
    return fgetxattr(file, name, value, size);
}
int setAttribute(int file, const char* name, const void* value, std::size_t size) {
    return fsetxattr(file, name, value, size, 0);
}
int removeAttribute(int file, const char* name) {
    return fremovexattr(file, name);
}
constexpr int kNoAttribute = ENODATA;
#endif

/// Calls `call(buffer, size)` with a buffer of the size that it asks for. Asks again on ERANGE,
/// which means that the value has grown between the two calls.
template<typename Call>
std::vector<char> sized(const Call& call, const std::string& path) {
    std::vector<char> buffer;
    for (;;) {
        const ssize_t wanted = call(nullptr, 0);
        if (wanted < 0) {
            throwHostError(path);
        }
        buffer.resize(static_cast<std::size_t>(wanted));
        if (wanted == 0) {
            return buffer;
        }
        const ssize_t got = call(buffer.data(), buffer.size());
        if (got >= 0) {
            buffer.resize(static_cast<std::size_t>(got));
            return buffer;
        }
        if (errno != ERANGE) {
            throwHostError(path);
        }
    }
}

} // namespace

std::vector<HostStream> readHostStreams(int descriptor, const std::string& path) {
    // A file system without attributes has no streams to copy, which is no error.
    if (listAttributes(descriptor, nullptr, 0) < 0 && errno == ENOTSUP) {
        return {};
    }
    const std::vector<char> list = sized(
        [&](char* buffer, std::size_t size) { return listAttributes(descriptor, buffer, size); },
        path);
    std::vector<HostStream> streams;
    // The list is a sequence of names, each with a null byte at its end. Names of other namespaces
    // (security, system, trusted) belong to the host.
    for (std::string_view rest(list.data(), list.size()); !rest.empty();) {
        const std::string name(rest.substr(0, rest.find('\0')));
        rest.remove_prefix(std::min(rest.size(), name.size() + 1));
        if (name.starts_with(kPrefix) && name.size() > kPrefix.size()) {
            streams.push_back({name.substr(kPrefix.size()),
                               sized(
                                   [&](char* buffer, std::size_t size) {
                                       return getAttribute(descriptor, name.c_str(), buffer, size);
                                   },
                                   path)});
        }
    }
    return streams;
}

bool writeHostStream(int descriptor, const std::string& name, std::span<const std::byte> value,
                     const std::string& path) {
    const std::string attribute = std::string(kPrefix) + name;
    if (setAttribute(descriptor, attribute.c_str(), value.data(), value.size()) == 0) {
        return true;
    }
    switch (errno) {
    case ENOTSUP: // no such attributes at all
    case EPERM:   // none in this place
    case ENOSPC:  // more than the file system keeps for one file
    case E2BIG:   // larger than any attribute may be
    case ERANGE:  // a name longer than any may be
        return false;
    default:
        throwHostError(path);
    }
}

void removeHostStream(int descriptor, const std::string& name, const std::string& path) {
    const std::string attribute = std::string(kPrefix) + name;
    if (removeAttribute(descriptor, attribute.c_str()) != 0 && errno != kNoAttribute) {
        throwHostError(path);
    }
}

} // namespace tavelin::cli
