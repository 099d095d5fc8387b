// The run list of an attribute extent, decoded run by run.
#pragma once

#include <cstdint>
#include <span>

namespace ntb {

// Clusters that follow each other both in the attribute and on the volume.
struct run {
    uint64_t vcn = 0;    // first cluster in the attribute
    uint64_t length = 0; // clusters, at least 1
    uint64_t lcn = 0;    // first cluster on the volume, unless it is a hole
    bool is_hole = false;
};

// Reads mapping pairs: a byte with the widths of what follows, the length, and how far the first
// cluster lies from that of the run before.
class mapping_pairs_reader {
  public:
    enum class result {
        run,
        end,
        malformed, // widths that do not fit, a length of 0 or less, numbers that overflow, no end
    };

    // `pairs` is the encoded list of one extent and must outlive the reader. `lowest_vcn` is the
    // first VCN of that extent, from its attribute header.
    mapping_pairs_reader(std::span<const uint8_t> pairs, uint64_t lowest_vcn) noexcept
        : pairs_(pairs), vcn_(lowest_vcn) {}

    // Fills `next` in for result::run. Whether its clusters are on the volume is for the caller.
    [[nodiscard]] result read(run& next) noexcept;
    // The cluster behind the last run, in the attribute.
    [[nodiscard]] uint64_t vcn() const noexcept { return vcn_; }

  private:
    std::span<const uint8_t> pairs_;
    uint64_t vcn_;
    int64_t lcn_ = 0;
};

} // namespace ntb
