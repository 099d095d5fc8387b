/// The listings of directories that hosts are reading in pages.
#pragma once

#include "core/driver2/directory_snapshot.hpp"

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>

namespace tavelin {

/// A position in a directory means something in one listing only, because entries that come and go
/// move those behind them. So the listing that a reader began with is kept until its end, and the
/// verifier, a number of its own for each listing, leads the reader back to it.
///
/// Readers may stop half-way without a word. What they leave is dropped when the directory's item
/// is reclaimed, when the volume is closed, or when others need the room: the listing that was used
/// longest ago goes first.
///
/// Not thread-safe: the volume's item lock guards it. Nothing here frees a listing under that lock;
/// what is dropped is handed to the caller.
class KeptListings {
  public:
    using Snapshot = std::shared_ptr<const Driver2::DirectorySnapshot>;
    /// One directory's entries as they were when its reader began.
    struct Listing {
        std::uint64_t directory; ///< file reference
        Snapshot snapshot;
    };
    using Listings = std::list<Listing>;

    /// At most so many listings, and so much memory for them, but always the one that was kept
    /// last. Names differ in length, so entries are no measure.
    static constexpr std::size_t kListingsMax = 256;
    static constexpr std::size_t kBytesMax = std::size_t{16} << 20;

    /// A verifier that no listing has had; never 0, with which hosts begin.
    [[nodiscard]] std::uint64_t nextVerifier();
    /// The verifier that was drawn last.
    [[nodiscard]] std::uint64_t lastVerifier() const noexcept { return lastVerifier_; }

    /// The directory's listing with this verifier, null when it is not kept.
    [[nodiscard]] Snapshot find(std::uint64_t directory, std::uint64_t verifier);
    /// Keeps a listing, unless it is kept, and answers what had to go for it.
    [[nodiscard]] Listings keep(std::uint64_t directory, Snapshot snapshot);
    /// Takes out one listing, all of a directory, or all that there are.
    [[nodiscard]] Listings takeOut(std::uint64_t directory, std::uint64_t verifier);
    [[nodiscard]] Listings takeOut(std::uint64_t directory);
    [[nodiscard]] Listings takeOut();

    /// How many listings are kept, and the memory that they take.
    [[nodiscard]] std::size_t count() const noexcept { return listings_.size(); }
    [[nodiscard]] std::size_t bytes() const noexcept { return bytes_; }

  private:
    /// Moves the listings that `wanted` chooses into the result, for the caller to free without the
    /// lock.
    template<typename Wanted>
    Listings takeOutWhere(const Wanted& wanted);

    Listings listings_; // least recently used first
    /// Kept beside the listings, so that their limit costs no walk.
    std::size_t bytes_ = 0;
    /// Verifiers are numbered upwards and never used again.
    std::uint64_t lastVerifier_ = 0;
};

} // namespace tavelin
