#include "crash/virtual_disk.hpp"

#include <algorithm>
#include <fstream>
#include <numeric>
#include <string_view>

namespace tavelin::test {
namespace {

constexpr std::uint64_t kSector = 512;
// Geometry of the footer. Windows goes by the size; the numbers have to make sense.
constexpr std::uint64_t kSectorsPerTrack = 17;
constexpr std::uint64_t kHeads = 4;
constexpr std::uint64_t kSizeMax = kPartitionBegin + (32u << 20);
static_assert(kSizeMax / kSector / kSectorsPerTrack <= kHeads * 1024);

void putBig(Bytes& to, std::size_t at, std::size_t size, std::uint64_t value) {
    for (std::size_t i = 0; i < size; ++i) {
        to.at(at + i) = static_cast<std::byte>(value >> 8 * (size - 1 - i));
    }
}

void putLittle(Bytes& to, std::size_t at, std::size_t size, std::uint64_t value) {
    for (std::size_t i = 0; i < size; ++i) {
        to.at(at + i) = static_cast<std::byte>(value >> 8 * i);
    }
}

// The first sector of a disk with a partition table of the old kind (MBR).
Bytes partitionTable(std::uint64_t volumeBytes, std::uint32_t number) {
    constexpr std::size_t kEntry = 446;
    constexpr std::uint64_t kNTFS = 7;
    constexpr std::uint64_t kBeyondCHS = 0xfffffe; // the place is in the sector numbers alone
    Bytes sector(kSector);
    putLittle(sector, 440, 4, number);
    putLittle(sector, kEntry + 1, 3, kBeyondCHS);
    putLittle(sector, kEntry + 4, 1, kNTFS);
    putLittle(sector, kEntry + 5, 3, kBeyondCHS);
    putLittle(sector, kEntry + 8, 4, kPartitionBegin / kSector);
    putLittle(sector, kEntry + 12, 4, volumeBytes / kSector);
    putBig(sector, 510, 2, 0x55aa);
    return sector;
}

// The sector behind a fixed virtual hard disk, as in Microsoft's description of the format.
Bytes diskFooter(std::uint64_t diskBytes, std::uint32_t number) {
    constexpr std::string_view kCookie = "conectix";
    Bytes footer(kSector);
    std::ranges::copy(bytesOf(kCookie), footer.begin());
    putBig(footer, 8, 4, 2);           // features: reserved, always set
    putBig(footer, 12, 4, 0x10000);    // version 1.0
    putBig(footer, 16, 8, UINT64_MAX); // no further header
    putBig(footer, 32, 4, 0x10000);    // version of the creator
    putBig(footer, 36, 4, 0x5769326b); // its system: Windows
    putBig(footer, 40, 8, diskBytes);  // as made
    putBig(footer, 48, 8, diskBytes);  // as it is
    putBig(footer, 56, 2, diskBytes / kSector / kSectorsPerTrack / kHeads);
    putBig(footer, 58, 1, kHeads);
    putBig(footer, 59, 1, kSectorsPerTrack);
    putBig(footer, 60, 4, 2);      // of fixed size
    putBig(footer, 80, 4, number); // the end of its identifier
    const auto sum = std::accumulate(
        footer.begin(), footer.end(), std::uint32_t{0},
        [](std::uint32_t before, std::byte byte) { return before + std::to_integer<int>(byte); });
    putBig(footer, 64, 4, ~sum);
    return footer;
}

} // namespace

void writeVirtualDisk(const std::filesystem::path& file, std::span<const std::byte> volume,
                      std::uint32_t number) {
    constexpr std::size_t kPiece = 64u << 10;
    std::ofstream out;
    out.exceptions(std::ios::failbit | std::ios::badbit);
    out.open(file, std::ios::binary | std::ios::trunc);
    const auto write = [&](std::uint64_t offset, std::span<const std::byte> bytes) {
        out.seekp(static_cast<std::streamoff>(offset));
        out.write(reinterpret_cast<const char*>(bytes.data()),
                  static_cast<std::streamsize>(bytes.size()));
    };
    const std::uint64_t end = kPartitionBegin + volume.size();
    write(0, partitionTable(volume.size(), number));
    for (std::size_t at = 0; at < volume.size(); at += kPiece) {
        const auto piece = volume.subspan(at, std::min(kPiece, volume.size() - at));
        if (std::ranges::any_of(piece, [](std::byte byte) { return byte != std::byte{0}; })) {
            write(kPartitionBegin + at, piece);
        }
    }
    write(end, diskFooter(end, number));
    out.close();
}

} // namespace tavelin::test
