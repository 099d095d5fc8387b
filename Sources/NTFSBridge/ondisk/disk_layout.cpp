#include "NTFSBridge/ondisk/disk_layout.hpp"

#include "NTFSBridge/device/block_io.hpp"

#include <cerrno>
#include <cstring>

namespace ntb {
namespace {

// Of the boot sector, in little endian.
constexpr uint64_t at_sector_size = 0x0b;         // u16, bytes
constexpr uint64_t at_sectors_per_cluster = 0x0d; // u8; from 0x80 on minus the power of two
constexpr uint64_t at_table_cluster = 0x30;       // u64
constexpr uint64_t at_mirror_cluster = 0x38;      // u64
constexpr uint64_t at_record_size = 0x40; // s8: clusters, or minus the power of two of bytes

// Of a file record.
constexpr uint64_t at_sequence_count = 0x06; // u16, the sequence number and one word a sector
constexpr uint64_t at_record_number = 0x2c;  // u32, where the update sequence does not begin before
constexpr uint64_t end_of_record_number = 0x30;

constexpr uint64_t smallest_record = 1024;
constexpr uint64_t record_bytes_max = 4096;
constexpr uint64_t cluster_bytes_max = 2u << 20;

bool is_power_of_two(uint64_t number) noexcept {
    return number != 0 && (number & (number - 1)) == 0;
}

// 2 to the power of minus the signed byte; 0 for what no volume has.
uint64_t minus_power(uint64_t byte) noexcept {
    const uint64_t power = 0x100 - byte;
    return power < 32 ? uint64_t{1} << power : 0;
}

} // namespace

uint64_t number_at(const uint8_t* bytes, uint64_t offset, unsigned size) noexcept {
    uint64_t number = 0;
    for (unsigned i = size; i > 0; --i) {
        number = number << 8 | bytes[offset + i - 1];
    }
    return number;
}

int32_t read_layout(const ntb_io& io, disk_layout& layout) noexcept {
    uint8_t boot[512];
    if (io.size < sizeof boot) {
        return EINVAL;
    }
    if (const int32_t error = io_read(io, nullptr, boot, 0, sizeof boot); error != 0) {
        return error;
    }
    const uint64_t sectors = boot[at_sectors_per_cluster];
    layout.cluster =
        number_at(boot, at_sector_size, 2) * (sectors < 0x80 ? sectors : minus_power(sectors));
    const uint64_t record = boot[at_record_size];
    layout.record_size = record < 0x80 ? record * layout.cluster : minus_power(record);
    if (std::memcmp(boot + 3, "NTFS    ", 8) != 0 || !is_power_of_two(layout.cluster) ||
        layout.cluster > cluster_bytes_max || !is_power_of_two(layout.record_size) ||
        layout.record_size < smallest_record || layout.record_size > record_bytes_max) {
        return EINVAL;
    }
    const uint64_t clusters = io.size / layout.cluster;
    const uint64_t table = number_at(boot, at_table_cluster, 8);
    const uint64_t mirror = number_at(boot, at_mirror_cluster, 8);
    if (table >= clusters || mirror >= clusters) {
        return EINVAL;
    }
    layout.mft_offset = table * layout.cluster;
    layout.mftmirr_offset = mirror * layout.cluster;
    return 0;
}

bool fixups_match(const uint8_t* record, uint64_t size, uint64_t number) noexcept {
    const uint64_t sequence = number_at(record, usa_offset, 2);
    const uint64_t count = number_at(record, at_sequence_count, 2);
    if (std::memcmp(record, "FILE", 4) != 0 || count != size / protected_sector + 1 ||
        sequence % 2 != 0 || sequence + count * 2 > protected_sector - 2) {
        return false;
    }
    if (sequence >= end_of_record_number && number_at(record, at_record_number, 4) != number) {
        return false;
    }
    for (uint64_t end = protected_sector; end <= size; end += protected_sector) {
        if (std::memcmp(record + end - 2, record + sequence, 2) != 0) {
            return false;
        }
    }
    return true;
}

} // namespace ntb
