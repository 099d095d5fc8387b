#include "core/journal/crc32c.hpp"

#include <cstring>

#if defined(__x86_64__)
#include <nmmintrin.h>
#elif defined(__ARM_FEATURE_CRC32)
#include <arm_acle.h>
#endif

namespace tavelin {

namespace {

constexpr std::uint32_t kReflectedPolynomial = 0x82f63b78;
constexpr std::size_t kSlices = 8; ///< bytes that the tables take in one step

using CRCTables = std::array<std::array<std::uint32_t, 256>, kSlices>;

// Slicing by eight (Kounavis and Berry, 2005). The plain table method takes one byte a step and
// each step waits for the one before it. With eight tables a step takes eight bytes, and its
// look-ups do not depend on each other.
constexpr CRCTables makeTables() noexcept {
    CRCTables tables{};
    for (std::uint32_t byte = 0; byte < 256; ++byte) {
        std::uint32_t sum = byte;
        for (int bit = 0; bit < 8; ++bit) {
            // The lowest bit leaves first, as the reflected form of the polynomial has it.
            sum = (sum >> 1) ^ ((sum & 1) != 0 ? kReflectedPolynomial : 0);
        }
        tables[0][byte] = sum;
    }
    // Table n tells what a byte contributes that has n more bytes behind it in the word: the entry
    // of table 0, carried on through n bytes of zero.
    for (std::size_t slice = 1; slice < kSlices; ++slice) {
        for (std::size_t byte = 0; byte < 256; ++byte) {
            const std::uint32_t sum = tables[slice - 1][byte];
            tables[slice][byte] = (sum >> 8) ^ tables[0][sum & 0xff];
        }
    }
    return tables;
}

constexpr CRCTables kTables = makeTables();
static_assert(kTables[0][1] == 0xf26b8303, "the table of the Castagnoli polynomial");

// The first byte of the text is the lowest of the word, which is the order that the tables assume
// on any host.
std::uint64_t littleEndian(const std::byte* bytes) noexcept {
    std::uint64_t word = 0;
    for (std::size_t i = sizeof word; i > 0; --i) {
        word = word << 8 | std::to_integer<std::uint64_t>(bytes[i - 1]);
    }
    return word;
}

#if defined(__x86_64__)

#define TAVELIN_CRC32C_INSTRUCTION 1

bool isThere() noexcept {
    return __builtin_cpu_supports("sse4.2") != 0;
}

// The function alone is compiled for SSE 4.2, whose CRC32 instruction has the Castagnoli polynomial
// built in. The rest of the program must run on processors without it.
__attribute__((target("sse4.2"))) inline std::uint32_t stepWord(std::uint32_t sum,
                                                                const std::byte* bytes) noexcept {
    // A copy and not a cast: the bytes need not be aligned for a word. It compiles to one load.
    std::uint64_t word = 0;
    std::memcpy(&word, bytes, sizeof word);
    return static_cast<std::uint32_t>(_mm_crc32_u64(sum, word));
}

__attribute__((target("sse4.2"))) inline std::uint32_t stepByte(std::uint32_t sum,
                                                                std::byte byte) noexcept {
    return _mm_crc32_u8(sum, std::to_integer<unsigned char>(byte));
}

#define TAVELIN_CRC32C_TARGET __attribute__((target("sse4.2")))

#elif defined(__ARM_FEATURE_CRC32)

#define TAVELIN_CRC32C_INSTRUCTION 1
#define TAVELIN_CRC32C_TARGET

// The compiler was told that every processor this program is for has it.
bool isThere() noexcept {
    return true;
}

inline std::uint32_t stepWord(std::uint32_t sum, const std::byte* bytes) noexcept {
    std::uint64_t word = 0;
    std::memcpy(&word, bytes, sizeof word);
    return __crc32cd(sum, word);
}

inline std::uint32_t stepByte(std::uint32_t sum, std::byte byte) noexcept {
    return __crc32cb(sum, std::to_integer<unsigned char>(byte));
}

#endif

#ifdef TAVELIN_CRC32C_INSTRUCTION

// Asked once, when the program starts.
const bool hasInstruction = isThere();

TAVELIN_CRC32C_TARGET std::uint32_t byInstruction(const std::byte* bytes, std::uint64_t length,
                                                  std::uint32_t before) noexcept {
    // Inverted before and after, as the standard has it. Undoing the inversion of `before` here is
    // what lets a caller continue a sum.
    std::uint32_t sum = ~before;
    for (; length >= sizeof(std::uint64_t); length -= sizeof(std::uint64_t)) {
        sum = stepWord(sum, bytes);
        bytes += sizeof(std::uint64_t);
    }
    for (; length > 0; --length) {
        sum = stepByte(sum, *bytes++);
    }
    return ~sum;
}

// The instruction takes a new operand each cycle but answers after three, and each step needs the
// answer of the one before. Four independent sums keep it busy, so four sectors take about the time
// of one.
TAVELIN_CRC32C_TARGET void fourSectors(const std::byte* bytes, std::uint32_t* sums) noexcept {
    std::uint32_t a = ~0u;
    std::uint32_t b = ~0u;
    std::uint32_t c = ~0u;
    std::uint32_t d = ~0u;
    for (std::uint64_t at = 0; at < kSectorBytes; at += sizeof(std::uint64_t)) {
        a = stepWord(a, bytes + at);
        b = stepWord(b, bytes + at + kSectorBytes);
        c = stepWord(c, bytes + at + 2 * kSectorBytes);
        d = stepWord(d, bytes + at + 3 * kSectorBytes);
    }
    sums[0] = ~a;
    sums[1] = ~b;
    sums[2] = ~c;
    sums[3] = ~d;
}

#endif

} // namespace

std::uint32_t crc32cByTables(const std::byte* bytes, std::uint64_t length,
                             std::uint32_t before) noexcept {
    std::uint32_t sum = ~before;
    for (; length >= kSlices; length -= kSlices) {
        // The sum so far belongs to the first four bytes of the word.
        const std::uint64_t word = littleEndian(bytes) ^ sum;
        sum = 0;
        for (std::size_t i = 0; i < kSlices; ++i) {
            // The first byte has seven more behind it, so it is looked up in the last table.
            sum ^= kTables[kSlices - 1 - i][(word >> (8 * i)) & 0xff];
        }
        bytes += kSlices;
    }
    for (; length > 0; --length) {
        // Up to seven bytes are left, taken by the plain table method.
        const std::uint32_t index = (sum ^ std::to_integer<std::uint32_t>(*bytes++)) & 0xff;
        sum = (sum >> 8) ^ kTables[0][index];
    }
    return ~sum;
}

bool hasCRC32CInstruction() noexcept {
#ifdef TAVELIN_CRC32C_INSTRUCTION
    return hasInstruction;
#else
    return false;
#endif
}

std::uint32_t crc32c(const std::byte* bytes, std::uint64_t length, std::uint32_t before) noexcept {
#ifdef TAVELIN_CRC32C_INSTRUCTION
    if (hasInstruction) {
        return byInstruction(bytes, length, before);
    }
#endif
    return crc32cByTables(bytes, length, before);
}

SectorSums sectorSums(const std::byte* page) noexcept {
    SectorSums sums{};
#ifdef TAVELIN_CRC32C_INSTRUCTION
    if (hasInstruction) {
        static_assert(kSectorsPerPage == 8, "two times four");
        fourSectors(page, sums.data());
        fourSectors(page + 4 * kSectorBytes, sums.data() + 4);
        return sums;
    }
#endif
    for (std::size_t sector = 0; sector < kSectorsPerPage; ++sector) {
        sums[sector] = crc32cByTables(page + sector * kSectorBytes, kSectorBytes, 0);
    }
    return sums;
}

} // namespace tavelin
