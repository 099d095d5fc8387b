#include "platform/file_descriptor.hpp"

#include "platform/assert.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <sys/uio.h>

namespace tavelin {

namespace {

/// Most bytes asked of one system call: macOS refuses requests of 2 GiB and more.
constexpr std::size_t kTransferBytesMax = std::size_t{1} << 30;

/// Repeats `call(done, length)` until `length` bytes are transferred. `atEnd` is the errno of a
/// call that transfers none; 0 where that is the file's end.
template<typename Call>
FileDescriptor::Transferred transferAll(std::size_t length, int atEnd, Call call) noexcept {
    std::size_t done = 0;
    while (done < length) {
        const std::size_t wanted = std::min(length - done, kTransferBytesMax);
        const ssize_t count = uninterrupted([&] { return call(done, wanted); });
        if (count < 0) {
            return {.bytes = done, .error = errno};
        }
        if (count == 0) {
            return {.bytes = done, .error = atEnd};
        }
        TAVELIN_ASSERT(static_cast<std::size_t>(count) <= wanted);
        done += static_cast<std::size_t>(count);
    }
    return {.bytes = done};
}

} // namespace

std::size_t bytesIn(GatheredBytes parts) noexcept {
    std::size_t bytes = 0;
    for (const auto part : parts) {
        bytes += part.size();
    }
    return bytes;
}

FileDescriptor::FileDescriptor(const char* path, int flags, mode_t mode) noexcept
    : number_(uninterrupted([&] { return ::open(path, flags | O_CLOEXEC, mode); })) {}

void FileDescriptor::reset(int number) noexcept {
    TAVELIN_ASSERT(number < 0 || number != number_);
    const int old = std::exchange(number_, number);
    if (old >= 0) {
        const int kept = errno;
        ::close(old);
        errno = kept;
    }
}

int FileDescriptor::close() noexcept {
    TAVELIN_ASSERT(number_ >= 0);
    return ::close(release()) == 0 ? 0 : errno;
}

FileDescriptor::Transferred FileDescriptor::readAt(void* into, std::size_t length,
                                                   std::uint64_t offset) const noexcept {
    return transferAll(length, 0, [&](std::size_t done, std::size_t wanted) {
        return ::pread(number_, static_cast<std::byte*>(into) + done, wanted,
                       static_cast<off_t>(offset + done));
    });
}

FileDescriptor::Transferred FileDescriptor::writeAt(const void* from, std::size_t length,
                                                    std::uint64_t offset) const noexcept {
    return transferAll(length, ENOSPC, [&](std::size_t done, std::size_t wanted) {
        return ::pwrite(number_, static_cast<const std::byte*>(from) + done, wanted,
                        static_cast<off_t>(offset + done));
    });
}

FileDescriptor::Transferred FileDescriptor::writeAt(GatheredBytes parts,
                                                    std::uint64_t offset) const noexcept {
    std::array<iovec, 256> pieces{}; // fewer than any system's IOV_MAX
    std::size_t done = 0;
    std::size_t first = 0;   // the part in which the next call begins
    std::size_t inFirst = 0; // bytes of it that are written
    for (;;) {
        while (first < parts.size() && inFirst >= parts[first].size()) {
            inFirst -= parts[first].size();
            ++first;
        }
        const std::size_t count = std::min(parts.size() - first, pieces.size());
        if (count == 0) {
            return {.bytes = done};
        }
        for (std::size_t i = 0; i < count; ++i) {
            const auto part = parts[first + i].subspan(i == 0 ? inFirst : 0);
            // Not const only because the system reads into the same structure elsewhere.
            pieces[i] = {const_cast<std::byte*>(part.data()), part.size()};
        }
        const ssize_t written = uninterrupted([&] {
            return ::pwritev(number_, pieces.data(), static_cast<int>(count),
                             static_cast<off_t>(offset + done));
        });
        if (written <= 0) {
            return {.bytes = done, .error = written < 0 ? errno : ENOSPC};
        }
        done += static_cast<std::size_t>(written);
        inFirst += static_cast<std::size_t>(written);
    }
}

FileDescriptor::Transferred FileDescriptor::write(const void* from,
                                                  std::size_t length) const noexcept {
    return transferAll(length, ENOSPC, [&](std::size_t done, std::size_t wanted) {
        return ::write(number_, static_cast<const std::byte*>(from) + done, wanted);
    });
}

FileDescriptor::Transferred FileDescriptor::readSome(void* into,
                                                     std::size_t length) const noexcept {
    const std::size_t wanted = std::min(length, kTransferBytesMax);
    const ssize_t count = uninterrupted([&] { return ::read(number_, into, wanted); });
    return count < 0 ? Transferred{.error = errno}
                     : Transferred{.bytes = static_cast<std::size_t>(count)};
}

} // namespace tavelin
