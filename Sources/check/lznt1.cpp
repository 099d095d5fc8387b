#include "check/private/lznt1.hpp"

#include "NTFSBridge/ondisk/little_endian.hpp"
#include "platform/assert.hpp"

namespace tavelin::check {
namespace {

constexpr std::size_t kChunkBytes = 4096;   // that a chunk decodes to
constexpr std::uint16_t kSizeMask = 0x0fff; // of a chunk's header: bytes behind it, less one
constexpr std::uint16_t kIsCompressed = 0x8000;

/// The tokens of one compressed chunk. Only lengths matter: every byte is some byte.
bool decodesChunk(std::span<const std::uint8_t> tokens) noexcept {
    std::size_t written = 0;
    for (std::size_t at = 0; at < tokens.size();) {
        const unsigned flags = tokens[at++];
        for (unsigned bit = 0; bit < 8 && at < tokens.size(); ++bit) {
            if ((flags >> bit & 1) == 0) {
                ++written;
                ++at;
            } else {
                // The further on in the chunk, the more bits the distance has and the fewer the
                // length.
                unsigned lengthBits = 12;
                while (lengthBits > 4 && written > std::size_t{0x10000} >> lengthBits) {
                    --lengthBits;
                }
                TAVELIN_ASSERT(lengthBits >= 4 && written <= kChunkBytes);
                if (at + 2 > tokens.size()) {
                    return false;
                }
                const unsigned token = ntb::u16_at(tokens.data(), at);
                const std::size_t distance = (token >> lengthBits) + 1;
                const std::size_t length = (token & ((1u << lengthBits) - 1)) + 3;
                if (distance > written) {
                    return false;
                }
                written += length;
                at += 2;
            }
            if (written > kChunkBytes) {
                return false;
            }
        }
    }
    return true;
}

} // namespace

bool decodesAsLznt1(std::span<const std::uint8_t> bytes, std::size_t unitBytes) noexcept {
    static_assert(kSizeMask + 1u == kChunkBytes);
    std::size_t written = 0;
    while (bytes.size() >= 2) {
        // A header of 0 ends the unit. What follows it, up to the cluster's end, means nothing.
        const std::uint16_t header = ntb::u16_at(bytes.data(), 0);
        if (header == 0) {
            break;
        }
        const std::size_t size = (header & kSizeMask) + 1u;
        const bool isCompressed = (header & kIsCompressed) != 0;
        if (size > bytes.size() - 2 || written + kChunkBytes > unitBytes ||
            (isCompressed ? !decodesChunk(bytes.subspan(2, size)) : size != kChunkBytes)) {
            return false;
        }
        // The last chunk of a file may decode to less. Counting it whole keeps the bound: the unit
        // has room for whole chunks only.
        written += kChunkBytes;
        bytes = bytes.subspan(2 + size);
    }
    return true;
}

} // namespace tavelin::check
