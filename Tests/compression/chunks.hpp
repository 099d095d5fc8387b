/// Random and structured chunks, and our decoders of them.
#pragma once

#include "compression/oracle.hpp"

#include <random>

namespace tavelin::test {

/// A random number below `limit`.
[[nodiscard]] std::size_t below(std::mt19937_64& random, std::size_t limit);

/// A chunk of 1 to `sizeMax` bytes, mostly of sizeMax: text, machine code with calls, runs,
/// records, noise, or pieces of these.
[[nodiscard]] Bytes makeChunk(std::mt19937_64& random, std::size_t sizeMax);

/// Our decoder of a format's chunks.
[[nodiscard]] bool decode(compression::Format format, std::span<const std::uint8_t> input,
                          std::span<std::uint8_t> output);

} // namespace tavelin::test
