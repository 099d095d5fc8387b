#include "NTFSBridge/ondisk/fixups.hpp"

#include "NTFSBridge/ondisk/boot_sector.hpp"
#include "NTFSBridge/ondisk/little_endian.hpp"
#include "platform/assert.hpp"

#include <cstring>

namespace ntb {
namespace {

constexpr uint64_t at_usa_offset = 0x04; // u16
constexpr uint64_t at_usa_count = 0x06;  // u16, the number and one word a sector

// The largest block's number and words fit behind its header and before the first protected word.
static_assert(at_usa_count + 2 + (index_block_size_max / protected_bytes + 1) * 2 <=
              protected_bytes - 2);

// 0 when malformed.
uint64_t usa_offset(std::span<const uint8_t> block) noexcept {
    if (block.size() < protected_bytes || block.size() % protected_bytes != 0) {
        return 0;
    }
    const uint64_t offset = u16_at(block.data(), at_usa_offset);
    const uint64_t count = u16_at(block.data(), at_usa_count);
    // An array that reached the first protected word would be overwritten by its own fixups.
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
        TAVELIN_ASSERT(word + 2 <= block.data() + protected_bytes - 2);
        // A mismatch does not end the loop: the words of all sectors belong in their places, so
        // that a caller can still show what a torn block holds.
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
    // The number differs from the last one, or a torn write would not show. 0 and 0xffff are what
    // blank media hold.
    const uint16_t before = u16_at(block.data(), offset);
    const uint16_t number = before >= 0xfffe ? 1 : static_cast<uint16_t>(before + 1);
    put_at(block.data(), offset, 2, number);
    uint8_t* word = block.data() + offset;
    for (uint64_t end = protected_bytes; end <= block.size(); end += protected_bytes) {
        word += 2;
        uint8_t* const last = block.data() + end - 2;
        TAVELIN_ASSERT(word + 2 <= block.data() + protected_bytes - 2);
        std::memcpy(word, last, 2);
        std::memcpy(last, block.data() + offset, 2);
    }
    return true;
}

} // namespace ntb
