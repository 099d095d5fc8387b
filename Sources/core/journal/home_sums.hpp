/// Remembers the checksums of pages at their home location, so that a record of the journal can
/// name what it replaces without reading it again.
///
/// Pages that pass by on their way into a cache are noted, as they are the ones that change next.
/// What is remembered must be what the device has: whoever writes to a page forgets it first. Takes
/// no lock.
#pragma once

#include "core/journal/crc32c.hpp"

#include <cstdint>
#include <vector>

namespace tavelin {

class HomeSums {
  public:
    /// As many as the bridge's cache has pages.
    static constexpr std::uint64_t kPagesMax = 8192;

    /// Takes the memory, some 320 KiB, and forgets everything. Without memory nothing is
    /// remembered.
    void enable() noexcept;

    /// Notes the content of a whole page.
    void note(std::uint64_t page, const std::byte* content) noexcept;
    void note(std::uint64_t page, const SectorSums& sums) noexcept;
    /// Forgets the pages that a range of bytes touches.
    void forget(std::uint64_t offset, std::uint64_t length) noexcept;
    /// Null when the page is not remembered; valid until the next call.
    [[nodiscard]] const SectorSums* find(std::uint64_t page) const noexcept;

  private:
    /// No device has a page with this number.
    static constexpr std::uint64_t kNoPage = UINT64_MAX;

    /// One remembered page. Pages with the same remainder take turns in a slot.
    struct Slot {
        std::uint64_t page = kNoPage;
        SectorSums sums{};
    };

    std::vector<Slot> slots_; ///< by page number modulo their count; none until enable()
};

} // namespace tavelin
