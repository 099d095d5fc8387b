/// Where in an image its volume is: all of it, a partition of a disk, or from a given byte on.
///
/// Reads the image through descriptors of its own, before the volume is opened. One thread at a
/// time; the partition tables are read by libblkid.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tavelin::cli {

/// A partition of a disk image, with an MBR or a GPT.
struct Partition {
    int number = 0;           ///< as the system numbers it: sdb1 is 1
    std::uint64_t offset = 0; ///< bytes from the start of the disk
    std::uint64_t length = 0; ///< bytes
    /// By its boot sector, whatever type the table gives the partition.
    bool isNTFS = false;
};

/// A volume's place in an image, as the user named it or as it was found.
struct ImagePlace {
    std::string path;
    std::uint64_t offset = 0; ///< bytes
    std::uint64_t length = 0; ///< bytes; 0 means up to the end of the image
    int partition = 0;        ///< 0 when it is none
    /// The boot sector is damaged, and the copy in the last sector stands for it.
    bool bootFromBackup = false;
};

/// Finds the volume that `image` names: a path, or a path with a partition's number behind a colon
/// ("disk.img:2"). A file of exactly that name comes first. `offset` is where the user says that
/// the volume begins. A disk without a volume of its own stands for its only NTFS partition.
/// Throws Failure when the number has no partition, or several are NTFS. An image that cannot be
/// read, or that holds something else, comes back whole: opening it tells what is wrong.
[[nodiscard]] ImagePlace findVolume(const std::string& image, std::optional<std::uint64_t> offset);

/// The partitions of an image, in the order of their numbers; none where it has no table.
[[nodiscard]] std::vector<Partition> partitionsOf(const std::string& path);

/// What a place without an NTFS volume holds, and what to do with it: the end of a sentence for the
/// user. Knows file systems and partition tables, formats of virtual disks, and compression.
[[nodiscard]] std::string describeForeign(const ImagePlace& place);

/// How many bytes the volume's boot sector promises beyond the end of the image; 0 when it is
/// whole, or has no boot sector that says.
[[nodiscard]] std::uint64_t missingBytes(const ImagePlace& place);

} // namespace tavelin::cli
