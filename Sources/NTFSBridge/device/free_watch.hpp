// Notices when clusters are given back: bits of $Bitmap that a write clears. What is freed belongs
// to its former owner again after a power cut, for as long as the device has not been synced, so
// file data must not go there before the rest.
//
// Told of every write by the device context. Not safe for use from two threads at a time.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

namespace ntb {

class free_watch {
  public:
    // Where $Bitmap lies, in bytes of the device. Until this is known everything counts as given
    // back.
    struct range {
        uint64_t offset;
        uint64_t length;
    };
    void watch(std::vector<range> bitmap) noexcept { ranges_ = std::move(bitmap); }

    // Bytes from offset on change from `before` to `after`. What they were is not known where
    // `before` is null: then any of the bitmap counts as given back.
    void see_change(uint64_t offset, const uint8_t* before, const uint8_t* after,
                    uint64_t count) noexcept;

    // Whether clusters were given back since the last reset().
    bool has_seen() const noexcept { return has_seen_ || ranges_.empty(); }
    void reset() noexcept { has_seen_ = false; }

  private:
    std::vector<range> ranges_; // one where the bitmap is in one piece, as formatters make it
    bool has_seen_ = false;
};

} // namespace ntb
