/// The bit stream of both formats: 16-bit little-endian words, each used from its most significant
/// bit down. Up to four words are held in a 64-bit buffer. After the last word come
/// zeros; isWithinInput() tells afterwards whether any of them was used. One thread, no allocation.
///
/// Everything is inlined so that the decoders' loops keep the members in registers.
#pragma once

#include "compression/private/bytes.hpp"

namespace tavelin::compression {

class BitStream {
  public:
    BitStream(const std::uint8_t* begin, const std::uint8_t* end) noexcept
        : next_(begin), end_(end) {}

    /// Makes at least 32 bits available.
    TAVELIN_INLINE void fill() noexcept {
        if (count_ >= 32) {
            return;
        }
        if (end_ - next_ >= 4) {
            const auto words = loadLittle<std::uint32_t>(next_);
            buffer_ |= std::uint64_t{words << 16 | words >> 16} << (32 - count_);
            next_ += 4;
            count_ += 32;
            return;
        }
        do {
            std::uint64_t word = 0;
            if (end_ - next_ >= 2) {
                word = loadLittle<std::uint16_t>(next_);
                next_ += 2;
            } else {
                padding_ += kWordBits;
            }
            buffer_ |= word << (48 - count_);
            count_ += kWordBits;
        } while (count_ < 32);
        TAVELIN_ASSERT(count_ < 64 && next_ <= end_);
    }

    /// The next `bits` (0 to 32) bits, which must be available, without using them up.
    [[nodiscard]] TAVELIN_INLINE std::uint32_t peek(unsigned bits) const noexcept {
        TAVELIN_ASSERT(bits <= 32 && bits <= count_);
        return static_cast<std::uint32_t>(buffer_ >> 1 >> (63 - bits));
    }

    TAVELIN_INLINE void drop(unsigned bits) noexcept {
        TAVELIN_ASSERT(bits <= 32 && bits <= count_);
        buffer_ <<= bits;
        count_ -= bits;
    }

    TAVELIN_INLINE std::uint32_t take(unsigned bits) noexcept {
        const std::uint32_t value = peek(bits);
        drop(bits);
        return value;
    }

    /// Gives back all words but those of the next `keep` bits (a multiple of the word), which are
    /// rounded up to whole words: bytes() then begins where a reader stands that has read no more.
    TAVELIN_INLINE void giveBackBeyond(unsigned keep) noexcept {
        TAVELIN_ASSERT(keep % kWordBits == 0);
        while (count_ >= keep + kWordBits) {
            if (padding_ > 0) {
                padding_ -= kWordBits;
            } else {
                next_ -= 2;
            }
            count_ -= kWordBits;
        }
        buffer_ = count_ == 0 ? 0 : buffer_ >> (64 - count_) << (64 - count_);
    }

    /// Skips the rest of the current word, or a whole word where none is begun, and leaves the
    /// buffer empty.
    TAVELIN_INLINE void skipToNextWord() noexcept {
        fill();
        const unsigned rest = count_ % kWordBits;
        drop(rest == 0 ? kWordBits : rest);
        giveBackBeyond(0);
    }

    /// The bytes that follow the words read so far: `count` of them, or null where the input ends
    /// before. Uses them up.
    TAVELIN_INLINE const std::uint8_t* bytes(std::size_t count) noexcept {
        if (padding_ > 0 || static_cast<std::size_t>(end_ - next_) < count) {
            return nullptr;
        }
        const std::uint8_t* const begin = next_;
        next_ += count;
        return begin;
    }

    /// Whether no bit was used that the input does not have.
    [[nodiscard]] TAVELIN_INLINE bool isWithinInput() const noexcept { return count_ >= padding_; }

  private:
    static constexpr unsigned kWordBits = 16;

    const std::uint8_t* next_;
    const std::uint8_t* end_;
    std::uint64_t buffer_ = 0; // the next bit is the most significant one; zeros below count_ bits
    unsigned count_ = 0;       // bits in the buffer
    unsigned padding_ = 0;     // of these, the ones past the end of the input: always the last ones
};

} // namespace tavelin::compression
