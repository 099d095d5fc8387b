#include "NTFSBridge/ondisk/volume_reader.hpp"

#include "NTFSBridge/device/block_io.hpp"
#include "NTFSBridge/ondisk/file_record.hpp"
#include "NTFSBridge/ondisk/fixups.hpp"
#include "platform/assert.hpp"

#include <algorithm>
#include <cerrno>

namespace ntb {
namespace {

// Applies the fixups of `record` in place.
bool accept_record(std::span<uint8_t> record, uint64_t number) noexcept {
    const record_view view(record);
    // The magic is in the first sector, before the protected word, and is valid before the fixups
    // are applied. Another record's number shows a write that went to the wrong place.
    return view.has_magic() && apply_fixups(record) == fixup_result::good &&
           (!view.has_number() || view.number() == number);
}

} // namespace

int32_t read_boot_sector(const ntb_io& io, boot_sector& boot) noexcept {
    uint8_t sector[boot_sector_bytes];
    if (io.size < sizeof sector) {
        return EINVAL;
    }
    if (const int32_t error = io_read(io, nullptr, sector, 0, sizeof sector); error != 0) {
        return error;
    }
    // The boot sector's own number of sectors is not enough: an image may have been cut off.
    const uint64_t clusters =
        parse_boot_sector(sector, boot) == boot_fault::none ? io.size / boot.cluster_size : 0;
    return boot.mft_lcn < clusters && boot.mftmirr_lcn < clusters ? 0 : EINVAL;
}

uint64_t mirrored_records(const boot_sector& boot) noexcept {
    TAVELIN_ASSERT(boot.record_size >= record_size_min);
    return std::max(mirrored_records_min, boot.cluster_size / boot.record_size);
}

bool fixups_match(std::span<const uint8_t> record, uint64_t number) noexcept {
    // A copy, since the caller compares the bytes as they are on the disk, with their fixups.
    uint8_t copy[record_size_max];
    TAVELIN_ASSERT(record.size() <= sizeof copy);
    std::copy(record.begin(), record.end(), copy);
    return accept_record(std::span(copy).first(record.size()), number);
}

int32_t read_mirrored_record(const ntb_io& io, const boot_sector& boot, uint64_t number,
                             std::span<uint8_t> record) noexcept {
    TAVELIN_ASSERT(record.size() == boot.record_size && number < mirrored_records(boot));
    int32_t first_failure = EINVAL;
    for (const uint64_t table : {boot.mft_lcn, boot.mftmirr_lcn}) {
        const uint64_t offset = table * boot.cluster_size + number * boot.record_size;
        const int32_t error = is_within(offset, record.size(), io.size)
                                  ? io_read(io, nullptr, record.data(), offset, record.size())
                                  : EINVAL;
        if (error == 0 && accept_record(record, number)) {
            return 0;
        }
        // Of two failures the caller hears of $MFT's: the mirror is only its stand-in.
        if (table == boot.mft_lcn && error != 0) {
            first_failure = error;
        }
    }
    return first_failure;
}

} // namespace ntb
