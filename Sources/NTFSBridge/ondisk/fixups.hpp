// Fixups (update sequences), which show a record or index block that was written in part.
//
// The last word of each 512 bytes is replaced by a number that the header holds too; the header
// also holds the words that belong there.
#pragma once

#include <cstdint>
#include <span>

namespace ntb {

constexpr uint64_t protected_bytes = 512; // that one word of the update sequence protects

enum class fixup_result {
    good,
    malformed, // the update sequence is not where, or as long as, it has to be
    mismatch,  // a sector ends with another number: the block was not written as a whole
};

// Puts the words back in their places. On a mismatch this is done too, so that what is there can
// be read; when malformed nothing is changed. `block` is a multiple of 512 bytes.
fixup_result apply_fixups(std::span<uint8_t> block) noexcept;

// The reverse, with the next sequence number. False when malformed, with nothing changed.
bool insert_fixups(std::span<uint8_t> block) noexcept;

} // namespace ntb
