// Requests that read and write files.
#include "hosts/fuse/protocol/requests.hpp"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <fcntl.h>
#include <linux/falloc.h>
#include <memory>
#include <new>
#include <optional>
#include <unistd.h>

namespace tavelin::fusehost {

namespace {

constexpr size_t kAlignment = 4096; // lets the kernel and the device move whole pages

struct Free {
    void operator()(std::byte* memory) const noexcept { std::free(memory); }
};

// The calling thread's buffer for one read, at least `size` bytes. Kept for the thread's life: a
// new buffer for each read would be mapped and faulted in anew.
std::span<std::byte> readBuffer(size_t size) {
    static thread_local std::unique_ptr<std::byte, Free> memory;
    static thread_local size_t room = 0;
    if (room < size) {
        const size_t wanted = (size + kAlignment - 1) / kAlignment * kAlignment;
        memory.reset(static_cast<std::byte*>(std::aligned_alloc(kAlignment, wanted)));
        room = memory ? wanted : 0;
    }
    if (!memory) {
        throw std::bad_alloc();
    }
    return {memory.get(), size};
}

// Not through answer(): this is the shortest way that data takes, and each call on it counts.
void read(fuse_req_t request, fuse_ino_t number, size_t size, off_t offset,
          fuse_file_info* /*file*/) noexcept {
    try {
        const std::span<std::byte> buffer = readBuffer(std::min(size, kTransferBytesMax));
        fskit::FSMutableFileDataBuffer memory(buffer);
        const Outcome<size_t> done = volumeOf(request).volume().requests().read(
            itemOf(request, number).item(), offset, buffer.size(), memory);
        if (!done) {
            fuse_reply_err(request, hostError(done.error()));
            return;
        }
        fuse_reply_buf(request, reinterpret_cast<const char*>(buffer.data()), *done);
    } catch (...) {
        replyException(request);
    }
}

// How many of the first bytes of a failed write the file has at that place. A write that filled the
// volume may have written a part, and POSIX wants its count; the volume answers the error only.
size_t alreadyThere(VolumeClient& volume, const ItemRef& item, uint64_t offset,
                    VolumeClient::Bytes given) {
    const std::span<std::byte> found = readBuffer(given.size());
    const Outcome<size_t> count = volume.read(item, offset, found);
    if (!count) {
        return 0;
    }
    const auto end = given.begin() + static_cast<ptrdiff_t>(std::min(*count, given.size()));
    return static_cast<size_t>(std::mismatch(given.begin(), end, found.begin()).first -
                               given.begin());
}

void write(fuse_req_t request, fuse_ino_t number, const char* bytes, size_t size, off_t offset,
           fuse_file_info* file) {
    answer(request, [&] {
        MountedVolume& volume = volumeOf(request);
        const ItemRef& item = volume.node(number).item;
        const auto start = static_cast<uint64_t>(offset);
        const VolumeClient::Bytes given{reinterpret_cast<const std::byte*>(bytes), size};
        const Outcome<size_t> done = volume.volume().write(item, start, given);
        // Of mapped memory and of what it has gathered, the kernel takes any count for all of it:
        // no program waits that could write the rest.
        const bool isWriteBack = file->writepage != 0;
        if (done && (*done == size || !isWriteBack)) {
            fuse_reply_write(request, *done);
            return;
        }
        // The library's word for a size that the volume's own limits on attributes do not allow.
        const int answered = done ? ENOSPC : hostError(done.error());
        const int error = answered == ERANGE ? EFBIG : answered;
        const size_t written =
            error == ENOSPC && !isWriteBack ? alreadyThere(volume.volume(), item, start, given) : 0;
        if (written != 0 && written < size) {
            fuse_reply_write(request, written);
        } else {
            fuse_reply_err(request, error);
        }
    });
}

std::optional<NTFSAllocation> allocationOf(int mode) {
    switch (mode) {
    case 0:
        return NTFSAllocation::reserve;
    case FALLOC_FL_KEEP_SIZE:
        return NTFSAllocation::reserveBehindEnd;
    case FALLOC_FL_ZERO_RANGE:
        return NTFSAllocation::zero;
    case FALLOC_FL_ZERO_RANGE | FALLOC_FL_KEEP_SIZE:
        return NTFSAllocation::zeroKeepingSize;
    case FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE:
        return NTFSAllocation::punchHole;
    default:
        return std::nullopt; // ranges are neither cut out nor put in
    }
}

void allocate(fuse_req_t request, fuse_ino_t number, int mode, off_t offset, off_t length,
              fuse_file_info* /*file*/) {
    answer(request, [&] {
        const std::optional<NTFSAllocation> how = allocationOf(mode);
        if (!how) {
            fuse_reply_err(request, EOPNOTSUPP);
            return;
        }
        replyResult(request, volumeOf(request).volume().requests().allocate(
                                 itemOf(request, number).item(), static_cast<uint64_t>(offset),
                                 static_cast<uint64_t>(length), *how));
    });
}

void seek(fuse_req_t request, fuse_ino_t number, off_t offset, int whence,
          fuse_file_info* /*file*/) {
    answer(request, [&] {
        if (contextOf(request).gathersWrites) {
            // Answered once and for all: to the kernel, which does not send what it has gathered
            // before it asks, a file is data to its end.
            fuse_reply_err(request, ENOSYS);
            return;
        }
        const Outcome<uint64_t> found = volumeOf(request).volume().requests().seek(
            itemOf(request, number).item(), static_cast<uint64_t>(offset), whence == SEEK_HOLE);
        if (found) {
            fuse_reply_lseek(request, static_cast<off_t>(*found));
        } else {
            fuse_reply_err(request, hostError(found.error()));
        }
    });
}

} // namespace

void addDataRequests(fuse_lowlevel_ops& table) {
    table.read = read;
    table.write = write;
    table.fallocate = allocate;
    table.lseek = seek;
}

} // namespace tavelin::fusehost
