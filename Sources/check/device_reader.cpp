#include "check/private/device_reader.hpp"

#include "platform/assert.hpp"

#include <algorithm>
#include <cerrno>

namespace tavelin::check {

std::int32_t DeviceReader::read(std::uint64_t offset, std::span<std::uint8_t> into) {
    if (into.size() > size() || offset > size() - into.size()) {
        return EIO;
    }
    const std::uint64_t block = device_.blockSize();
    TAVELIN_ASSERT(block > 0);
    if (offset % block == 0 && into.size() % block == 0) {
        return into.empty()
                   ? 0
                   : device_.read(reinterpret_cast<std::byte*>(into.data()), offset, into.size());
    }
    // Devices transfer whole blocks; records and clusters may be smaller than one. The device's
    // size is a multiple of the block, so the rounded range is on it as well.
    const std::uint64_t begin = offset / block * block;
    const std::uint64_t end = (offset + into.size() + block - 1) / block * block;
    TAVELIN_ASSERT(begin <= offset && offset + into.size() <= end);
    bounce_.resize(end - begin);
    const std::int32_t error =
        device_.read(reinterpret_cast<std::byte*>(bounce_.data()), begin, bounce_.size());
    if (error == 0) {
        std::copy_n(bounce_.begin() + static_cast<std::ptrdiff_t>(offset - begin), into.size(),
                    into.begin());
    }
    return error;
}

} // namespace tavelin::check
