#include "NTFSBridge/ondisk/mapping_pairs.hpp"

#include "NTFSBridge/ondisk/little_endian.hpp"
#include "platform/assert.hpp"

namespace ntb {

mapping_pairs_reader::result mapping_pairs_reader::read(run& next) noexcept {
    if (pairs_.empty()) {
        return result::malformed;
    }
    if (pairs_[0] == 0) {
        return result::end;
    }
    // Widths of 9 to 15 bytes can be written in the nibbles and mean nothing. A pair without a
    // cluster field is a hole; one without a length cannot be.
    const unsigned length_width = pairs_[0] & 0xf;
    const unsigned lcn_width = pairs_[0] >> 4;
    if (length_width < 1 || length_width > 8 || lcn_width > 8 ||
        pairs_.size() < 1u + length_width + lcn_width) {
        return result::malformed;
    }
    const int64_t length = signed_at(pairs_.data(), 1, length_width);
    const int64_t distance = signed_at(pairs_.data(), 1 + length_width, lcn_width);
    next.vcn = vcn_;
    next.is_hole = lcn_width == 0;
    // Both fields are signed. LCNs and VCNs have 63 bits, so that the sum of two never wraps. A
    // hole leaves lcn_ alone: the next run is relative to the last one that has clusters.
    if (length <= 0 || __builtin_add_overflow(vcn_, static_cast<uint64_t>(length), &vcn_) ||
        vcn_ > INT64_MAX || __builtin_add_overflow(lcn_, distance, &lcn_) || lcn_ < 0) {
        return result::malformed;
    }
    next.length = static_cast<uint64_t>(length);
    next.lcn = next.is_hole ? 0 : static_cast<uint64_t>(lcn_);
    TAVELIN_ASSERT(next.length > 0 && next.vcn + next.length == vcn_);
    pairs_ = pairs_.subspan(1u + length_width + lcn_width);
    return result::run;
}

} // namespace ntb
