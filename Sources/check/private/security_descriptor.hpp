/// Security descriptors as $Secure and the attribute of that name hold them.
#pragma once

#include <cstdint>
#include <span>

namespace tavelin::check {

/// Whether it is a self-relative descriptor whose owner, group and lists lie inside it.
[[nodiscard]] bool isSecurityDescriptor(std::span<const std::uint8_t> bytes) noexcept;

/// The hash that $SDS, $SII and $SDH keep of a descriptor.
[[nodiscard]] std::uint32_t securityHash(std::span<const std::uint8_t> bytes) noexcept;

} // namespace tavelin::check
