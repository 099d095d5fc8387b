#include "check/private/security_descriptor.hpp"

#include "NTFSBridge/ondisk/little_endian.hpp"

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
    const std::uint64_t count = ntb::u16_at(rest.data(), 4);
    rest = rest.first(ntb::u16_at(rest.data(), 2)).subspan(kAclHeader);
    for (std::uint64_t i = 0; i < count; ++i) {
        const std::uint64_t size = rest.size() < kAceHeader ? 0 : ntb::u16_at(rest.data(), 2);
        if (size < kAceHeader || size > rest.size()) {
            return false;
        }
        rest = rest.subspan(size);
    }
    return true;
}

} // namespace

bool isSecurityDescriptor(Bytes bytes) noexcept {
    if (bytes.size() < kHeader || bytes[0] != 1 ||
        (ntb::u16_at(bytes.data(), 2) & kSelfRelative) == 0) {
        return false;
    }
    for (const std::uint64_t field : {4u, 8u, 12u, 16u}) { // owner, group, system and user lists
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
    std::uint32_t hash = 0;
    for (std::size_t i = 0; i + 4 <= bytes.size(); i += 4) {
        hash = (hash << 3 | hash >> 29) + ntb::u32_at(bytes.data(), i);
    }
    return hash;
}

} // namespace tavelin::check
