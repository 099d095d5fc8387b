/// The directory listing that is kept for one enumeration.
#pragma once

#include "core/values.hpp"

#include <cstdint>
#include <span>
#include <utility>

namespace tavelin::Driver2 {

/// One listing of a directory, kept while a host reads it in pages. Immutable once built and
/// shared by reference. Positions count entries from 0; the cookie after an entry is its position
/// plus one.
class DirectorySnapshot {
  public:
    DirectorySnapshot(NTFSListing listing, std::uint64_t number)
        : entries(std::move(listing)), verifier(number) {}

    const NTFSListing entries;    ///< in the order of NTFSVolume::list
    const std::uint64_t verifier; ///< by which its reader finds it again

    /// The entries from `position` on, none past the end. Valid while the snapshot lives.
    [[nodiscard]] std::span<const NTFSDirEntry> page(std::uint64_t position) const noexcept;

    /// `position` + 1; a negative or overflowing position stops the process.
    [[nodiscard]] static std::uint64_t cookie(std::int64_t position) noexcept;
};

} // namespace tavelin::Driver2
