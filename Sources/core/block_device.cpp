#include "core/block_device.hpp"

#include <cerrno>
#include <new>
#include <vector>

namespace tavelin {

std::int32_t BlockDevice::writeGathered(GatheredBytes parts, std::uint64_t offset) noexcept {
    if (parts.size() == 1) {
        return write(parts.front().data(), offset, parts.front().size());
    }
    std::vector<std::byte> whole;
    try {
        whole.reserve(bytesIn(parts));
        for (const auto part : parts) {
            whole.insert(whole.end(), part.begin(), part.end());
        }
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
    return write(whole.data(), offset, whole.size());
}

std::int32_t BlockDevice::discard(std::uint64_t /*offset*/, std::uint64_t /*length*/) noexcept {
    return EOPNOTSUPP;
}

} // namespace tavelin
