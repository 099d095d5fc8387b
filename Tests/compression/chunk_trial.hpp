/// Random and structured chunks, and what both decoders must make of one.
#pragma once

#include "compression/oracle.hpp"

#include <optional>
#include <random>
#include <string>

namespace tavelin::test {

/// A chunk of 1 to `sizeMax` bytes, mostly of sizeMax: text, machine code with calls, runs,
/// records, noise, or pieces of these.
[[nodiscard]] Bytes makeChunk(std::mt19937_64& random, std::size_t sizeMax);

/// Our decoder of a format's chunks.
[[nodiscard]] bool decode(compression::Format format, std::span<const std::uint8_t> input,
                          std::span<std::uint8_t> output);

/// Compresses random chunks of one format and decodes them, whole and damaged.
class ChunkTrial {
  public:
    ChunkTrial(compression::Format format, std::uint64_t seed);

    /// One chunk. What went wrong, if anything: the whole form does not come back, or a damaged one
    /// is taken for something that libwim does not take it for.
    [[nodiscard]] std::optional<std::string> run();

  private:
    [[nodiscard]] bool damagedIsAgreedOn(Bytes input, std::size_t size);

    compression::Format format_;
    std::mt19937_64 random_;
    std::vector<Oracle> oracles_; // of several levels
};

} // namespace tavelin::test
