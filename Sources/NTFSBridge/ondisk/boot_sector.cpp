#include "NTFSBridge/ondisk/boot_sector.hpp"

#include "NTFSBridge/ondisk/fixups.hpp"
#include "NTFSBridge/ondisk/little_endian.hpp"

#include <bit>
#include <cstring>

namespace ntb {
namespace {

constexpr uint64_t at_sector_size = 0x0b;         // u16, bytes
constexpr uint64_t at_sectors_per_cluster = 0x0d; // u8; from 0x80 on minus the power of two
constexpr uint64_t at_sectors = 0x28;             // u64
constexpr uint64_t at_mft_lcn = 0x30;             // u64
constexpr uint64_t at_mftmirr_lcn = 0x38;         // u64
constexpr uint64_t at_record_size = 0x40;      // s8: clusters, or minus the power of two of bytes
constexpr uint64_t at_index_block_size = 0x44; // the same
constexpr uint64_t at_serial = 0x48;           // u64
constexpr uint64_t at_signature = 0x1fe;       // u16
constexpr uint16_t signature = 0xaa55;
static_assert(at_signature + sizeof signature == boot_sector_bytes);

// Fixups protect whole 512 bytes, so every size that is accepted has to be made of these.
static_assert(record_size_min % protected_bytes == 0 && record_size_min <= record_size_max);
static_assert(index_block_size_max % protected_bytes == 0);

bool has_name(const uint8_t* from) noexcept {
    return std::memcmp(from + 3, "NTFS    ", 8) == 0;
}

// 2 to the power of minus the signed byte; 0 for what no volume has.
uint64_t minus_power(uint64_t byte) noexcept {
    TAVELIN_ASSERT(byte >= 0x80 && byte <= 0xff);
    // The power is up to 128. No field allows 2^32 bytes, and a longer shift would be undefined.
    const uint64_t power = 0x100 - byte;
    return power < 32 ? uint64_t{1} << power : 0;
}

uint64_t clusters_or_power(uint64_t byte, uint64_t cluster) noexcept {
    return byte < 0x80 ? byte * cluster : minus_power(byte);
}

bool is_size(uint64_t bytes, uint64_t least, uint64_t most) noexcept {
    TAVELIN_ASSERT(least <= most);
    return std::has_single_bit(bytes) && bytes >= least && bytes <= most;
}

} // namespace

bool is_ntfs_boot_sector(std::span<const uint8_t, boot_sector_bytes> bytes) noexcept {
    return has_name(bytes.data()) && u16_at(bytes.data(), at_signature) == signature;
}

uint64_t volume_serial(std::span<const uint8_t, boot_sector_bytes> bytes) noexcept {
    return u64_at(bytes.data(), at_serial);
}

boot_fault parse_boot_sector(std::span<const uint8_t, boot_sector_bytes> bytes,
                             boot_sector& boot) noexcept {
    const uint8_t* const from = bytes.data();
    if (!has_name(from)) {
        return boot_fault::not_ntfs;
    }
    boot.sector_size = u16_at(from, at_sector_size);
    if (!is_size(boot.sector_size, 256, 4096)) {
        return boot_fault::sector_size;
    }
    // Up to 0x80 the byte is a number of sectors. Clusters above 64 KiB came with Windows 10, which
    // writes them as the negative of a power of two, since 4096 sectors do not fit into the byte.
    const uint64_t factor = from[at_sectors_per_cluster];
    boot.cluster_size = boot.sector_size * (factor <= 0x80 ? factor : minus_power(factor));
    if (!is_size(boot.cluster_size, boot.sector_size, cluster_size_max)) {
        return boot_fault::cluster_size;
    }
    boot.record_size = clusters_or_power(from[at_record_size], boot.cluster_size);
    if (!is_size(boot.record_size, record_size_min, record_size_max)) {
        return boot_fault::record_size;
    }
    boot.index_block_size = clusters_or_power(from[at_index_block_size], boot.cluster_size);
    if (!is_size(boot.index_block_size, 512, index_block_size_max)) {
        return boot_fault::index_block_size;
    }
    boot.sectors = u64_at(from, at_sectors);
    boot.mft_lcn = u64_at(from, at_mft_lcn);
    boot.mftmirr_lcn = u64_at(from, at_mftmirr_lcn);
    boot.serial = volume_serial(bytes);
    // Whoever multiplies a cluster's number below clusters() by the cluster's size relies on this:
    // the size of the volume in bytes fits into 64 bits.
    if (boot.clusters() == 0 || boot.sectors > UINT64_MAX / boot.sector_size) {
        return boot_fault::size;
    }
    TAVELIN_ASSERT(boot.clusters() <= UINT64_MAX / boot.cluster_size);
    const bool has_tables = boot.mft_lcn < boot.clusters() && boot.mftmirr_lcn < boot.clusters();
    return has_tables ? boot_fault::none : boot_fault::mft;
}

const char* describe(boot_fault fault) noexcept {
    switch (fault) {
    case boot_fault::none:
        return "nothing";
    case boot_fault::not_ntfs:
        return "the name of the file system";
    case boot_fault::sector_size:
        return "the size of a sector";
    case boot_fault::cluster_size:
        return "the size of a cluster";
    case boot_fault::record_size:
        return "the size of a file record";
    case boot_fault::index_block_size:
        return "the size of an index block";
    case boot_fault::size:
        return "the number of sectors";
    case boot_fault::mft:
        return "the place of $MFT or $MFTMirr";
    }
    return "";
}

} // namespace ntb
