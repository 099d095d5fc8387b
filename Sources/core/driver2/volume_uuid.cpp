#include "core/driver2/volume_uuid.hpp"

#include <cstddef>

namespace tavelin::Driver2 {

UUID volumeUUID(std::uint64_t serial) noexcept {
    UUID uuid{'T', 'A', 'V', 'E', 'L', 'I', 'N', '1'};
    for (std::size_t i = 0; i < 8; ++i) {
        uuid[8 + i] = static_cast<std::uint8_t>(serial >> (8 * i));
    }
    uuid[6] = static_cast<std::uint8_t>((uuid[6] & 0x0F) | 0x50);
    uuid[8] = static_cast<std::uint8_t>((uuid[8] & 0x3F) | 0x80);
    return uuid;
}

} // namespace tavelin::Driver2
