/// The identifier by which the host recognises a volume. Pure; any thread.
#pragma once

#include <array>
#include <cstdint>

namespace tavelin::Driver2 {

using UUID = std::array<std::uint8_t, 16>;

/// The identifier of the volume with this serial number: "TAVELIN1", then the serial, least
/// significant byte first, marked as version 5 of the RFC 4122 variant. The same volume always gets
/// the same one, and hosts recognise it by that.
[[nodiscard]] UUID volumeUUID(std::uint64_t serial) noexcept;

} // namespace tavelin::Driver2
