#include "check/private/security_descriptor.hpp"

#include "NTFSBridge/ondisk/little_endian.hpp"
#include "platform/assert.hpp"

namespace tavelin::check {
namespace {

using Bytes = std::span<const std::uint8_t>;

constexpr std::uint64_t kHeader = 20; // bytes
constexpr std::uint16_t kSelfRelative = 0x8000;
constexpr std::uint64_t kSubAuthoritiesMax = 15;
constexpr std::uint64_t kAclHeader = 8; // bytes
constexpr std::uint64_t kAceHeader = 4; // bytes

bool isSid(Bytes rest) noexcept {
    return rest.size() >= 8 && rest[0] == 1 && rest[1] <= kSubAuthoritiesMax &&
           rest.size() >= 8 + rest[1] * 4u;
}

bool isAcl(Bytes rest) noexcept {
    if (rest.size() < kAclHeader || ntb::u16_at(rest.data(), 2) > rest.size() ||
        ntb::u16_at(rest.data(), 2) < kAclHeader) {
        return false;
    }
    // The list may be longer than its entries: Windows leaves room for more. It may not be shorter.
    const std::uint64_t count = ntb::u16_at(rest.data(), 4);
    rest = rest.first(ntb::u16_at(rest.data(), 2)).subspan(kAclHeader);
    for (std::uint64_t i = 0; i < count; ++i) {
        const std::uint64_t size = rest.size() < kAceHeader ? 0 : ntb::u16_at(rest.data(), 2);
        if (size < kAceHeader || size > rest.size()) {
            return false;
        }
        TAVELIN_ASSERT(size >= kAceHeader);
        rest = rest.subspan(size);
    }
    return true;
}

} // namespace

bool isSecurityDescriptor(Bytes bytes) noexcept {
    // On disk the parts are given by offsets. The form with pointers exists in memory only.
    static_assert(kHeader == 4 + 4 * sizeof(std::uint32_t));
    if (bytes.size() < kHeader || bytes[0] != 1 ||
        (ntb::u16_at(bytes.data(), 2) & kSelfRelative) == 0) {
        return false;
    }
    for (const std::uint64_t field : {4u, 8u, 12u, 16u}) { // owner, group, system and user lists
        // 0 is a part that the descriptor does not have. Parts may lie in any order, and may share
        // bytes: only their ends matter.
        const std::uint64_t offset = ntb::u32_at(bytes.data(), field);
        if (offset == 0) {
            continue;
        }
        if (offset < kHeader || offset >= bytes.size()) {
            return false;
        }
        const Bytes rest = bytes.subspan(offset);
        if (field < 12 ? !isSid(rest) : !isAcl(rest)) {
            return false;
        }
    }
    return true;
}

std::uint32_t securityHash(Bytes bytes) noexcept {
    // As Windows computes it for $SDS and $SDH: rotated left by three and added, word by word. The
    // bytes behind the last whole word do not count.
    std::uint32_t hash = 0;
    for (std::size_t i = 0; i + 4 <= bytes.size(); i += 4) {
        hash = (hash << 3 | hash >> 29) + ntb::u32_at(bytes.data(), i);
    }
    return hash;
}

} // namespace tavelin::check
