#include "NTFSBridge/ondisk/volume_flags.hpp"

#include "NTFSBridge/device/block_io.hpp"
#include "NTFSBridge/ondisk/file_record.hpp"
#include "NTFSBridge/ondisk/fixups.hpp"
#include "NTFSBridge/ondisk/volume_reader.hpp"
#include "platform/assert.hpp"

#include <algorithm>
#include <cerrno>

namespace ntb {
namespace {

constexpr uint64_t flags_in_value = 0x0a; // of $VOLUME_INFORMATION
constexpr uint64_t no_place = 0;          // no flags are at the start of a record

// Where the flags are in a record, in bytes from its start.
uint64_t flags_offset(std::span<const uint8_t> record) noexcept {
    uint8_t copy[record_size_max];
    if (record.size() > sizeof copy || !fixups_match(record, record_volume)) {
        return no_place;
    }
    std::copy(record.begin(), record.end(), copy);
    const std::span<uint8_t> bytes = std::span(copy).first(record.size());
    (void)apply_fixups(bytes); // they are right: the record is whole
    const record_view view(bytes);
    attribute_reader attributes(view);
    attribute_view attribute;
    while (attributes.next(attribute) == attribute_reader::result::attribute) {
        if (attribute.type() == at_volume_information && attribute.is_resident() &&
            attribute.value().size() >= flags_in_value + sizeof(uint16_t)) {
            return static_cast<uint64_t>(attribute.value().data() - bytes.data()) + flags_in_value;
        }
    }
    return no_place;
}

// The last word of each 512 bytes is not what it seems.
bool is_under_fixup(uint64_t offset) noexcept {
    const auto touches = [](uint64_t byte) {
        return byte % protected_bytes >= protected_bytes - sizeof(uint16_t);
    };
    return touches(offset) || touches(offset + 1);
}

} // namespace

int32_t read_volume_flags(std::span<const uint8_t> record, uint16_t& flags) noexcept {
    const uint64_t offset = flags_offset(record);
    if (offset == no_place || is_under_fixup(offset)) {
        return EINVAL;
    }
    flags = u16_at(record.data(), offset);
    return 0;
}

} // namespace ntb

using namespace ntb;

int32_t ntb_volume_records(const ntb_io* io, ntb_extent records[2]) {
    boot_sector boot;
    if (const int32_t error = read_boot_sector(*io, boot); error != 0) {
        return error;
    }
    TAVELIN_ASSERT(record_volume < mirrored_records(boot));
    const uint64_t inside = record_volume * boot.record_size;
    records[0] = {boot.mft_lcn * boot.cluster_size + inside, boot.record_size};
    records[1] = {boot.mftmirr_lcn * boot.cluster_size + inside, boot.record_size};
    const bool are_inside = is_within(records[0].offset, boot.record_size, io->size) &&
                            is_within(records[1].offset, boot.record_size, io->size);
    return are_inside ? 0 : EINVAL;
}

int32_t ntb_volume_flags(const ntb_io* io, uint16_t* flags) {
    ntb_extent records[2];
    if (const int32_t error = ntb_volume_records(io, records); error != 0) {
        return error;
    }
    int32_t result = EINVAL;
    for (const ntb_extent& extent : records) {
        uint8_t bytes[record_size_max];
        const std::span<uint8_t> record = std::span(bytes).first(extent.length);
        if (const int32_t error = io_read(*io, nullptr, bytes, extent.offset, extent.length);
            error != 0) {
            return error;
        }
        if (result = read_volume_flags(record, *flags); result == 0) {
            break;
        }
    }
    return result;
}

int32_t ntb_set_dirty(const ntb_io* io, int32_t is_dirty) {
    ntb_extent records[2];
    if (const int32_t error = ntb_volume_records(io, records); error != 0) {
        return error;
    }
    int32_t result = EINVAL;
    for (const ntb_extent& extent : records) {
        uint8_t bytes[record_size_max];
        const std::span<uint8_t> record = std::span(bytes).first(extent.length);
        if (const auto error = io_read(*io, nullptr, bytes, extent.offset, extent.length);
            error != 0) {
            return error;
        }
        uint16_t flags = 0;
        if (read_volume_flags(record, flags) != 0) {
            continue;
        }
        result = 0;
        if (((flags & volume_is_dirty) != 0) == (is_dirty != 0)) {
            continue;
        }
        // The flag is in the first byte, and no fixup covers it: the record stays whole. Only its
        // block is written, so that a power cut leaves the old record or the new one.
        const uint64_t at = flags_offset(record);
        bytes[at] = static_cast<uint8_t>(bytes[at] ^ volume_is_dirty);
        if (const auto error = io_write(*io, nullptr, bytes + at, extent.offset + at, 1);
            error != 0) {
            return error;
        }
    }
    return result;
}
