/// A canonical Huffman code as both formats have them: symbols of equal length take consecutive
/// code words in the order of the symbols, shorter ones come first. One thread, no allocation.
///
/// Codes of up to TableBits bits are decoded by one look into a table. Longer ones, which are rare
/// by construction, are found by comparing with the first code word of each length.
#pragma once

#include "compression/private/bit_stream.hpp"

#include <array>
#include <span>

namespace tavelin::compression {

template<unsigned Symbols, unsigned MaxLength, unsigned TableBits>
class HuffmanCode {
    static_assert(TableBits <= 12 && TableBits <= MaxLength && MaxLength <= 16 && Symbols <= 4096);

  public:
    enum class Kind { complete, empty, invalid };

    /// Takes the length of each symbol's code word, 0 for a symbol without one; none may exceed
    /// MaxLength. Only a complete code can be decoded with.
    [[nodiscard]] Kind build(std::span<const std::uint8_t, Symbols> lengths) noexcept {
        std::array<std::uint16_t, MaxLength + 1> counts{};
        for (const std::uint8_t length : lengths) {
            TAVELIN_ASSERT(length <= MaxLength);
            counts[length]++;
        }
        if (counts[0] == Symbols) {
            return Kind::empty;
        }
        std::array<std::uint16_t, MaxLength + 1> places;
        places[0] = 0;
        std::uint32_t word = 0;
        limits_[0] = 0;
        for (unsigned length = 1; length <= MaxLength; length++) {
            places[length] = static_cast<std::uint16_t>(places[length - 1] + counts[length - 1]);
            firstPlaces_[length] = places[length];
            word += std::uint32_t{counts[length]} << (MaxLength - length);
            limits_[length] = word;
        }
        if (word != 1U << MaxLength) {
            return Kind::invalid;
        }
        for (unsigned symbol = 0; symbol < Symbols; symbol++) {
            sorted_[places[lengths[symbol]]++] = static_cast<std::uint16_t>(symbol);
        }
        fillTable(counts);
        return Kind::complete;
    }

    /// The next symbol. MaxLength bits must be available.
    TAVELIN_INLINE unsigned decode(BitStream& bits) const noexcept {
        const unsigned entry = table_[bits.peek(TableBits)];
        if (entry != kLongCode) [[likely]] {
            bits.drop(entry % 16);
            return entry / 16;
        }
        return decodeLong(bits);
    }

  private:
    static constexpr std::uint16_t kLongCode = 0;
    static constexpr std::size_t kTableSize = std::size_t{1} << TableBits;
    static constexpr std::size_t kStoreEntries = 4; // written at once: may reach beyond the table

    TAVELIN_INLINE unsigned decodeLong(BitStream& bits) const noexcept {
        const std::uint32_t word = bits.peek(MaxLength);
        unsigned length = TableBits;
        while (length < MaxLength && word >= limits_[length]) {
            length++;
        }
        bits.drop(length);
        // The code is complete, so its last limit is above every word.
        TAVELIN_ASSERT(word >= limits_[length - 1] && word < limits_[length]);
        const std::uint32_t index = (word - limits_[length - 1]) >> (MaxLength - length);
        TAVELIN_ASSERT(firstPlaces_[length] + index < Symbols);
        return sorted_[firstPlaces_[length] + index];
    }

    void fillTable(const std::array<std::uint16_t, MaxLength + 1>& counts) noexcept {
        std::uint16_t* next = table_.data();
        const std::uint16_t* symbol = &sorted_[firstPlaces_[1]];
        for (unsigned length = 1; length <= TableBits; length++) {
            const std::size_t run = std::size_t{1} << (TableBits - length);
            for (unsigned i = 0; i < counts[length]; i++) {
                const auto entry = static_cast<std::uint16_t>(*symbol++ * 16 + length);
                if (run < kStoreEntries) {
                    next[0] = entry;
                    next[run - 1] = entry;
                } else {
                    fill(next, next + run, entry);
                }
                next += run;
            }
        }
        TAVELIN_ASSERT(next <= table_.data() + kTableSize);
        if (next != table_.data() + kTableSize) {
            fill(next, table_.data() + kTableSize, kLongCode);
        }
    }

    TAVELIN_INLINE static void fill(std::uint16_t* from, const std::uint16_t* to,
                                    std::uint16_t entry) noexcept {
        const std::uint64_t entries = 0x0001000100010001U * entry;
        do {
            std::memcpy(from, &entries, sizeof entries);
            from += kStoreEntries;
        } while (from < to);
    }

    // Symbol * 16 + length of its code word, by the first TableBits bits; or kLongCode.
    std::array<std::uint16_t, kTableSize + kStoreEntries> table_;
    // By length: the end of its code words, left-justified to MaxLength bits.
    std::array<std::uint32_t, MaxLength + 1> limits_;
    // By length: where its symbols begin in sorted_, which has the symbols without a code first.
    std::array<std::uint16_t, MaxLength + 1> firstPlaces_;
    std::array<std::uint16_t, Symbols> sorted_;
};

} // namespace tavelin::compression
