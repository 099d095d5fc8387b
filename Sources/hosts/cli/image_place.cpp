#include "hosts/cli/image_place.hpp"

#include "NTFSBridge/ondisk/boot_sector.hpp"
#include "hosts/cli/failure.hpp"
#include "hosts/cli/text.hpp"
#include "platform/assert.hpp"
#include "platform/file_descriptor.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <fcntl.h>
#include <memory>
#include <span>
#include <sys/stat.h>

#ifdef TAVELIN_BLKID
#include <blkid/blkid.h>
#endif

namespace tavelin::cli {
namespace {

using Sector = std::array<std::uint8_t, ntb::boot_sector_bytes>;

/// An image for looking at; empty where it cannot be read or is neither a file nor a device.
FileDescriptor openImage(const std::string& path) {
    // A pipe must not be waited for.
    FileDescriptor file(path.c_str(), O_RDONLY | O_NONBLOCK);
    struct ::stat status {};
    if (!file || fstat(file.get(), &status) != 0 ||
        (!S_ISREG(status.st_mode) && !S_ISBLK(status.st_mode))) {
        return {};
    }
    return file;
}

/// Bytes that the image has of the place.
std::uint64_t bytesIn(const FileDescriptor& file, const ImagePlace& place) {
    const off_t end = lseek(file.get(), 0, SEEK_END);
    const std::uint64_t all = end < 0 ? 0 : static_cast<std::uint64_t>(end);
    const std::uint64_t rest = place.offset < all ? all - place.offset : 0;
    return place.length != 0 ? std::min(place.length, rest) : rest;
}

/// The sector at this byte; absent at the end and on an error.
std::optional<Sector> sectorAt(const FileDescriptor& file, std::uint64_t offset) {
    Sector sector{};
    if (!file || file.readAt(sector.data(), sector.size(), offset).bytes != sector.size()) {
        return std::nullopt;
    }
    return sector;
}

bool isBootSector(const std::optional<Sector>& sector) {
    return sector && ntb::is_ntfs_boot_sector(*sector);
}

#ifdef TAVELIN_BLKID

using Probe = std::unique_ptr<blkid_struct_probe, void (*)(blkid_probe)>;

/// A probe of a part of an open file, which must outlive it; a length of 0 means up to the end.
/// Empty where there cannot be one.
Probe makeProbe(const FileDescriptor& file, std::uint64_t offset = 0, std::uint64_t length = 0) {
    Probe probe(blkid_new_probe(), blkid_free_probe);
    if (probe && blkid_probe_set_device(probe.get(), file.get(), static_cast<off_t>(offset),
                                        static_cast<off_t>(length)) != 0) {
        probe.reset();
    }
    return probe;
}

std::vector<Partition> readTable(const FileDescriptor& file) {
    const Probe probe = makeProbe(file);
    if (!probe) {
        return {};
    }
    blkid_probe_enable_partitions(probe.get(), 1);
    // The list belongs to the probe.
    blkid_partlist const list = blkid_probe_get_partitions(probe.get());
    std::vector<Partition> partitions;
    for (int i = 0; list != nullptr && i < blkid_partlist_numof_partitions(list); ++i) {
        blkid_partition const entry = blkid_partlist_get_partition(list, i);
        // libblkid counts in sectors of 512 bytes whatever the disk's are. An extended partition
        // only holds others.
        constexpr std::uint64_t kUnit = 512;
        if (blkid_partition_is_extended(entry) == 0) {
            const auto start = static_cast<std::uint64_t>(blkid_partition_get_start(entry));
            const auto size = static_cast<std::uint64_t>(blkid_partition_get_size(entry));
            partitions.push_back({blkid_partition_get_partno(entry), start * kUnit, size * kUnit,
                                  isBootSector(sectorAt(file, start * kUnit))});
        }
    }
    TAVELIN_ASSERT(list != nullptr || partitions.empty());
    std::sort(partitions.begin(), partitions.end(),
              [](const auto& a, const auto& b) { return a.number < b.number; });
    return partitions;
}

/// The kind of file system that libblkid recognises; empty when none.
std::string systemOf(const FileDescriptor& file, const ImagePlace& place) {
    const Probe probe = makeProbe(file, place.offset, place.length);
    if (!probe) {
        return {};
    }
    blkid_probe_enable_superblocks(probe.get(), 1);
    blkid_probe_set_superblocks_flags(probe.get(), BLKID_SUBLKS_TYPE);
    const char* type = nullptr;
    if (blkid_do_safeprobe(probe.get()) != 0 ||
        blkid_probe_lookup_value(probe.get(), "TYPE", &type, nullptr) != 0) {
        return {};
    }
    return type;
}

#else

std::vector<Partition> readTable(const FileDescriptor& /*file*/) {
    return {};
}

std::string systemOf(const FileDescriptor& /*file*/, const ImagePlace& /*place*/) {
    return {};
}

#endif

std::string listed(const std::vector<Partition>& partitions) {
    std::string text;
    for (const Partition& partition : partitions) {
        text += fmt::format("{}{} ({}{})", text.empty() ? "" : ", ", partition.number,
                            humanSize(partition.length), partition.isNTFS ? ", NTFS" : "");
    }
    return text;
}

/// Splits "disk.img:2"; the number is 0 when there is none.
std::pair<std::string, int> splitNumber(const std::string& image) {
    const std::size_t colon = image.rfind(':');
    int number = 0;
    if (colon != std::string::npos) {
        const char* const end = image.data() + image.size();
        const auto read = std::from_chars(image.data() + colon + 1, end, number);
        if (read.ec == std::errc() && read.ptr == end && number > 0) {
            return {image.substr(0, colon), number};
        }
    }
    return {image, 0};
}

/// A format of files that are not images of a disk byte by byte, by what they begin with.
struct Magic {
    std::string_view bytes;
    std::string_view text;
};
constexpr Magic kMagics[] = {
    {"QFI\xfb", "a qcow2 image: 'qemu-img convert -O raw' makes a raw one of it"},
    {"vhdxfile", "a VHDX image: 'qemu-img convert -O raw' makes a raw one of it"},
    {"conectix", "a VHD image: 'qemu-img convert -O raw' makes a raw one of it"},
    {"KDMV", "a VMDK image: 'qemu-img convert -O raw' makes a raw one of it"},
    {"# Disk DescriptorFile", "a description of a VMDK image: convert it with 'qemu-img'"},
    {"<<< ", "a VDI image: 'qemu-img convert -O raw' makes a raw one of it"},
    {"EVF\x09", "an EWF image: convert it to a raw one first"},
    {"\x1f\x8b", "compressed with gzip: unpack it with 'gunzip' first"},
    {"\xfd"
     "7zXZ",
     "compressed with xz: unpack it with 'unxz' first"},
    {"\x28\xb5\x2f\xfd", "compressed with zstd: unpack it with 'unzstd' first"},
    {"BZh", "compressed with bzip2: unpack it with 'bunzip2' first"},
    {"PK\x03\x04", "a ZIP archive: unpack it first"},
    {"7z\xbc\xaf", "a 7z archive: unpack it first"},
    {"MSWIM", "a WIM archive: unpack it first"},
};

static_assert(std::all_of(std::begin(kMagics), std::end(kMagics),
                          [](const Magic& magic) { return !magic.bytes.empty(); }),
              "an empty one would match every image");
static_assert(std::none_of(std::begin(kMagics), std::end(kMagics),
                           [](const Magic& magic) {
                               return magic.bytes.size() > ntb::boot_sector_bytes;
                           }),
              "only the first sector is compared");

std::string systemText(const std::string& type) {
    if (type == "BitLocker") {
        return "encrypted with BitLocker: unlock it first, such as with 'cryptsetup bitlkOpen'";
    }
    if (type == "crypto_LUKS") {
        return "encrypted with LUKS: unlock it with 'cryptsetup open' first";
    }
    const std::string name = type == "exfat" ? "exFAT" : type == "vfat" ? "FAT" : type;
    return fmt::format("it holds {}, which only its own driver can read", name);
}

bool isText(std::span<const std::uint8_t> bytes) {
    return std::all_of(bytes.begin(), bytes.end(), [](std::uint8_t byte) {
        return byte >= 0x20 ? byte != 0x7f : byte == '\n' || byte == '\r' || byte == '\t';
    });
}

/// findVolume(), whatever is at the place.
ImagePlace namedPlace(const std::string& image, std::optional<std::uint64_t> offset) {
    struct ::stat status {};
    const bool isThere = stat(image.c_str(), &status) == 0;
    const auto [path, number] = isThere ? std::pair(image, 0) : splitNumber(image);
    if (offset) {
        return {.path = path, .offset = *offset};
    }
    const FileDescriptor file = openImage(path);
    if (!file || (number == 0 && isBootSector(sectorAt(file, 0)))) {
        return {.path = path};
    }
    std::vector<Partition> partitions = readTable(file);
    if (number != 0) {
        for (const Partition& partition : partitions) {
            if (partition.number == number) {
                return {path, partition.offset, partition.length, number};
            }
        }
        throw Failure(partitions.empty() ? escaped(path) + ": has no partition table"
                                         : fmt::format("{}: has no partition {}: it has {}",
                                                       escaped(path), number, listed(partitions)));
    }
    std::vector<Partition> ours = partitions;
    std::erase_if(ours, [](const Partition& partition) { return !partition.isNTFS; });
    if (ours.size() > 1) {
        throw Failure(fmt::format("{0}: is a whole disk with several NTFS partitions, {1}: name "
                                  "one, such as {0}:{2}",
                                  escaped(path), listed(ours), ours.front().number));
    }
    if (ours.size() == 1) {
        const Partition& only = ours.front();
        return {path, only.offset, only.length, only.number};
    }
    return {.path = path};
}

/// What a file has at a place without an NTFS volume, as describeForeign() says it; empty where
/// nothing is known of it.
std::string foreignAt(const FileDescriptor& file, const ImagePlace& place) {
    const std::uint64_t bytes = bytesIn(file, place);
    if (bytes == 0) {
        return "it is empty";
    }
    Sector first{};
    const std::size_t there = file.readAt(first.data(), first.size(), place.offset).bytes;
    const std::string_view head(reinterpret_cast<const char*>(first.data()), there);
    for (const Magic& magic : kMagics) {
        if (head.starts_with(magic.bytes)) {
            return "it is " + std::string(magic.text);
        }
    }
    if (head.size() > 11 && head.substr(3, 8) == "-FVE-FS-") { // also where libblkid wants more
        return systemText("BitLocker");
    }
    if (const std::string type = systemOf(file, place); !type.empty()) {
        return systemText(type);
    }
    if (place.offset == 0) {
        if (const auto partitions = readTable(file); !partitions.empty()) {
            return fmt::format("it is a whole disk without an NTFS partition: {}",
                               listed(partitions));
        }
    }
    if (isText(std::span(first).first(there))) {
        return "it is a text file";
    }
    return "";
}

/// Whether there is a volume whose boot sector is lost: NTFS keeps a copy of its first sector in
/// the last one of the partition. What is known to be something else may have an old one there.
bool hasOnlyBackup(const FileDescriptor& file, const ImagePlace& place) {
    const std::uint64_t sectors = bytesIn(file, place) / ntb::boot_sector_bytes;
    return sectors >= 2 && !isBootSector(sectorAt(file, place.offset)) &&
           isBootSector(sectorAt(file, place.offset + (sectors - 1) * ntb::boot_sector_bytes)) &&
           foreignAt(file, place).empty();
}

} // namespace

std::vector<Partition> partitionsOf(const std::string& path) {
    const FileDescriptor file = openImage(path);
    return file ? readTable(file) : std::vector<Partition>();
}

ImagePlace findVolume(const std::string& image, std::optional<std::uint64_t> offset) {
    ImagePlace place = namedPlace(image, offset);
    const FileDescriptor file = openImage(place.path);
    place.bootFromBackup = file && hasOnlyBackup(file, place);
    return place;
}

std::string describeForeign(const ImagePlace& place) {
    const FileDescriptor file = openImage(place.path);
    if (!file) {
        return "name an image file or a block device such as /dev/sdb1";
    }
    if (std::string known = foreignAt(file, place); !known.empty()) {
        return known;
    }
    const auto first = sectorAt(file, place.offset);
    if (first && std::all_of(first->begin(), first->end(), [](auto byte) { return byte == 0; })) {
        return "it begins with zeros: is it complete?";
    }
    return "nothing in it is known; for a whole disk, name its NTFS partition";
}

std::uint64_t missingBytes(const ImagePlace& place) {
    const FileDescriptor file = openImage(place.path);
    const auto sector = sectorAt(file, place.offset);
    ntb::boot_sector boot;
    if (!isBootSector(sector) || ntb::parse_boot_sector(*sector, boot) != ntb::boot_fault::none) {
        return 0;
    }
    const std::uint64_t there = bytesIn(file, place);
    const std::uint64_t wanted = boot.sectors * boot.sector_size;
    return wanted > there ? wanted - there : 0;
}

} // namespace tavelin::cli
