#include "hosts/cli/copy/content_comparison.hpp"

#include "hosts/cli/interruption.hpp"

#include <algorithm>
#include <cstring>
#include <span>

namespace tavelin::cli {

bool ContentComparison::isSame(const Found& found, const std::string& path,
                               const FileDescriptor& host, const std::string& hostPath) {
    for (std::uint64_t offset = 0;;) {
        throwIfInterrupted();
        const std::size_t count =
            valueOf(volume_.read(found.item, offset, onVolume_), path, found.attributes);
        // One byte at the end of the volume's file shows whether the other one goes on.
        const auto there = host.readAt(onHost_.data(), std::max<std::size_t>(count, 1), offset);
        if (there.error != 0) {
            throwHostError(hostPath, there.error);
        }
        if (there.bytes != count || std::memcmp(onVolume_.data(), onHost_.data(), count) != 0) {
            return false;
        }
        if (count == 0) {
            return true;
        }
        offset += count;
    }
}

} // namespace tavelin::cli
