#include "hosts/cli/copy/content_comparison.hpp"

#include "hosts/cli/interruption.hpp"

#include <algorithm>
#include <cstring>

namespace tavelin::cli {

bool ContentComparison::isSame(const Found& found, const std::string& path,
                               const FileDescriptor& host, const std::string& hostPath) {
    return isSame(found, path, [&](std::uint64_t offset, std::span<std::byte> into) {
        const auto read = host.readAt(into.data(), into.size(), offset);
        if (read.error != 0) {
            throwHostError(hostPath, read.error);
        }
        return read.bytes;
    });
}

bool ContentComparison::isSame(const Found& found, const std::string& path,
                               const ReadOther& readOther) {
    for (std::uint64_t offset = 0;;) {
        throwIfInterrupted();
        const std::size_t count =
            valueOf(volume_.read(found.item, offset, onVolume_), path, found.attributes);
        // One byte at the end of the volume's file shows whether the other one goes on.
        const std::span there = std::span(there_).first(std::max<std::size_t>(count, 1));
        if (readOther(offset, there) != count ||
            std::memcmp(onVolume_.data(), there.data(), count) != 0) {
            return false;
        }
        if (count == 0) {
            return true;
        }
        offset += count;
    }
}

} // namespace tavelin::cli
