#include "NTFSBridge/ondisk/fixups.hpp"

#include "NTFSBridge/ondisk/little_endian.hpp"

#include <cstring>

namespace ntb {
namespace {

constexpr uint64_t at_usa_offset = 0x04; // u16
constexpr uint64_t at_usa_count = 0x06;  // u16, the number and one word a sector

// 0 when malformed.
uint64_t usa_offset(std::span<const uint8_t> block) noexcept {
    if (block.size() < protected_bytes || block.size() % protected_bytes != 0) {
        return 0;
    }
    const uint64_t offset = u16_at(block.data(), at_usa_offset);
    const uint64_t count = u16_at(block.data(), at_usa_count);
    const bool fits = offset >= at_usa_count + 2 && offset % 2 == 0 &&
                      count == block.size() / protected_bytes + 1 &&
                      offset + count * 2 <= protected_bytes - 2;
    return fits ? offset : 0;
}

} // namespace

fixup_result apply_fixups(std::span<uint8_t> block) noexcept {
    const uint64_t offset = usa_offset(block);
    if (offset == 0) {
        return fixup_result::malformed;
    }
    fixup_result result = fixup_result::good;
    const uint8_t* word = block.data() + offset;
    for (uint64_t end = protected_bytes; end <= block.size(); end += protected_bytes) {
        word += 2;
        uint8_t* const last = block.data() + end - 2;
        if (std::memcmp(last, block.data() + offset, 2) != 0) {
            result = fixup_result::mismatch;
        }
        std::memcpy(last, word, 2);
    }
    return result;
}

bool insert_fixups(std::span<uint8_t> block) noexcept {
    const uint64_t offset = usa_offset(block);
    if (offset == 0) {
        return false;
    }
    // 0 and 0xffff are what blank media hold.
    const uint16_t before = u16_at(block.data(), offset);
    const uint16_t number = before >= 0xfffe ? 1 : static_cast<uint16_t>(before + 1);
    put_at(block.data(), offset, 2, number);
    uint8_t* word = block.data() + offset;
    for (uint64_t end = protected_bytes; end <= block.size(); end += protected_bytes) {
        word += 2;
        uint8_t* const last = block.data() + end - 2;
        std::memcpy(word, last, 2);
        std::memcpy(last, block.data() + offset, 2);
    }
    return true;
}

} // namespace ntb
