#include "hosts/fuse/protocol/kernel_channel.hpp"

#include "hosts/fuse/libfuse.hpp"
#include "hosts/fuse/protocol/session_context.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <linux/fuse.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace tavelin::fusehost {

namespace {

constexpr std::pair<uint32_t, std::string_view> kNames[] = {
    {FUSE_LOOKUP, "LOOKUP"},
    {FUSE_FORGET, "FORGET"},
    {FUSE_GETATTR, "GETATTR"},
    {FUSE_SETATTR, "SETATTR"},
    {FUSE_READLINK, "READLINK"},
    {FUSE_SYMLINK, "SYMLINK"},
    {FUSE_MKNOD, "MKNOD"},
    {FUSE_MKDIR, "MKDIR"},
    {FUSE_UNLINK, "UNLINK"},
    {FUSE_RMDIR, "RMDIR"},
    {FUSE_RENAME, "RENAME"},
    {FUSE_LINK, "LINK"},
    {FUSE_OPEN, "OPEN"},
    {FUSE_READ, "READ"},
    {FUSE_WRITE, "WRITE"},
    {FUSE_STATFS, "STATFS"},
    {FUSE_RELEASE, "RELEASE"},
    {FUSE_FSYNC, "FSYNC"},
    {FUSE_SETXATTR, "SETXATTR"},
    {FUSE_GETXATTR, "GETXATTR"},
    {FUSE_LISTXATTR, "LISTXATTR"},
    {FUSE_REMOVEXATTR, "REMOVEXATTR"},
    {FUSE_FLUSH, "FLUSH"},
    {FUSE_INIT, "INIT"},
    {FUSE_OPENDIR, "OPENDIR"},
    {FUSE_READDIR, "READDIR"},
    {FUSE_RELEASEDIR, "RELEASEDIR"},
    {FUSE_FSYNCDIR, "FSYNCDIR"},
    {FUSE_GETLK, "GETLK"},
    {FUSE_SETLK, "SETLK"},
    {FUSE_SETLKW, "SETLKW"},
    {FUSE_ACCESS, "ACCESS"},
    {FUSE_CREATE, "CREATE"},
    {FUSE_INTERRUPT, "INTERRUPT"},
    {FUSE_BMAP, "BMAP"},
    {FUSE_DESTROY, "DESTROY"},
    {FUSE_IOCTL, "IOCTL"},
    {FUSE_POLL, "POLL"},
    {FUSE_BATCH_FORGET, "BATCH_FORGET"},
    {FUSE_FALLOCATE, "FALLOCATE"},
    {FUSE_READDIRPLUS, "READDIRPLUS"},
    {FUSE_RENAME2, "RENAME2"},
    {FUSE_LSEEK, "LSEEK"},
    {FUSE_COPY_FILE_RANGE, "COPY_FILE_RANGE"},
    {FUSE_SYNCFS, "SYNCFS"},
    {FUSE_TMPFILE, "TMPFILE"},
};

ssize_t readFor(int fd, void* buffer, size_t size, void* context) {
    return static_cast<SessionContext*>(context)->channel.read(fd, buffer, size);
}

ssize_t writeFor(int fd, struct iovec* parts, int count, void* context) {
    return static_cast<SessionContext*>(context)->channel.write(fd, parts, count);
}

// Turns a syncfs request into the fsync of the root directory, in the same buffer.
ssize_t asDirectorySync(void* buffer) {
    auto& header = *static_cast<fuse_in_header*>(buffer);
    header.opcode = FUSE_FSYNCDIR;
    header.len = sizeof(fuse_in_header) + sizeof(fuse_fsync_in);
    std::memset(&header + 1, 0, sizeof(fuse_fsync_in));
    return header.len;
}

} // namespace

std::string_view requestName(uint32_t opcode) noexcept {
    for (const auto& [code, name] : kNames) {
        if (code == opcode) {
            return name;
        }
    }
    return "UNKNOWN";
}

int KernelChannel::attach(fuse_session* session, FileDescriptor& connection) {
    fuse_custom_io io{};
    io.read = readFor;
    io.writev = writeFor;
    const int failed = -fuse_session_custom_io(session, &io, connection.get());
    if (failed == 0) {
        (void)connection.release();
    }
    return failed;
}

void KernelChannel::note(const void* request, ssize_t size) noexcept {
    const auto& header = *static_cast<const fuse_in_header*>(request);
    counts_[std::min<size_t>(header.opcode, kOpcodes - 1)].fetch_add(1, std::memory_order_relaxed);
    if (trace_) {
        std::fprintf(stderr, "%s node %llx size %zd\n", requestName(header.opcode).data(),
                     static_cast<unsigned long long>(header.nodeid), size);
    }
}

ssize_t KernelChannel::read(int fd, void* buffer, size_t size) noexcept {
    const ssize_t got = ::read(fd, buffer, size);
    if (got < static_cast<ssize_t>(sizeof(fuse_in_header))) {
        return got;
    }
    note(buffer, got);
    const auto& header = *static_cast<const fuse_in_header*>(buffer);
    if (header.opcode == FUSE_INIT) {
        const auto& init = *reinterpret_cast<const fuse_init_in*>(&header + 1);
        clearsPrivileges_ = !keepsModes_ && (init.flags & FUSE_HANDLE_KILLPRIV_V2) != 0;
        initRequest_ = header.unique;
    } else if (header.opcode == FUSE_SYNCFS) {
        return asDirectorySync(buffer);
    }
    return got;
}

ssize_t KernelChannel::write(int fd, struct iovec* parts, int count) noexcept {
    const auto& header = *static_cast<const fuse_out_header*>(parts[0].iov_base);
    if (const uint64_t init = initRequest_; init != 0 && header.unique == init) {
        initRequest_ = 0;
        if (count > 1 && header.error == 0 && clearsPrivileges_) {
            static_cast<fuse_init_out*>(parts[1].iov_base)->flags |= FUSE_HANDLE_KILLPRIV_V2;
        }
    }
    return ::writev(fd, parts, count);
}

std::string KernelChannel::summary() const {
    std::vector<std::pair<uint64_t, uint32_t>> seen;
    for (uint32_t opcode = 0; opcode < kOpcodes; ++opcode) {
        if (const uint64_t count = counts_[opcode].load(std::memory_order_relaxed); count != 0) {
            seen.emplace_back(count, opcode);
        }
    }
    std::sort(seen.rbegin(), seen.rend());
    std::string line = "requests:";
    for (const auto& [count, opcode] : seen) {
        line += fmt::format(" {} {}", requestName(opcode), count);
    }
    return line;
}

} // namespace tavelin::fusehost
