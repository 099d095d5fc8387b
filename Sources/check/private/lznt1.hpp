/// The compression of single files: units of 16 clusters, LZNT1.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace tavelin::check {

/// Whether the bytes of one compression unit decode, to at most `unitBytes`.
[[nodiscard]] bool decodesAsLznt1(std::span<const std::uint8_t> bytes,
                                  std::size_t unitBytes) noexcept;

} // namespace tavelin::check
