// Constants of the NTFS format, under the names that its published descriptions use.
#pragma once

#include <cstdint>

namespace ntb {

// Types of attributes. A record holds its attributes in ascending order of type.
enum attribute_type : uint32_t {
    // Times, flags and the security id of a file. Every base record begins with it.
    at_standard_information = 0x10,
    // Where a file's attributes are when one record is not enough for them.
    at_attribute_list = 0x20,
    // A name, the directory that it is in, and copies of times and sizes. One for each link and DOS
    // name.
    at_file_name = 0x30,
    // A number by which Windows finds a file wherever it is moved.
    at_object_id = 0x40,
    // Of files from before $Secure; newer ones have a security id.
    at_security_descriptor = 0x50,
    at_volume_name = 0x60,
    // Version of the format and the volume's flags.
    at_volume_information = 0x70,
    // A stream: unnamed for the file's content, named for what is shown as extended attributes.
    at_data = 0x80,
    // The root of an index, always resident.
    at_index_root = 0x90,
    // The blocks of an index that does not fit into its root.
    at_index_allocation = 0xa0,
    // Which blocks of an index, or records of $MFT, are in use.
    at_bitmap = 0xb0,
    // What the file is beyond its streams: a link, or something for a driver of Windows.
    at_reparse_point = 0xc0,
    // Extended attributes of OS/2, which WSL keeps modes and devices in.
    at_ea_information = 0xd0,
    at_ea = 0xe0,
    // Encryption keys, among others.
    at_logged_utility_stream = 0x100,
    // Ends the attributes of a record.
    at_end = 0xffffffff,
};

// Flags of an attribute.
constexpr uint16_t attribute_compressed = 0x0001; // the low byte is the method, 1 is LZNT1
// Any bit of the method: the value is stored in units of several clusters.
constexpr uint16_t attribute_compression_mask = 0x00ff;
// Encrypted by Windows with a key that is not on the volume.
constexpr uint16_t attribute_encrypted = 0x4000;
// Ranges without clusters read as zeros.
constexpr uint16_t attribute_sparse = 0x8000;

// Flags of a file record.
constexpr uint16_t record_in_use = 0x0001;
constexpr uint16_t record_is_directory = 0x0002;
// An index of something else than file names, as $Secure has.
constexpr uint16_t record_is_view_index = 0x0008;

// Record numbers of the system files.
// The file table itself, whose data is all records.
constexpr uint64_t record_mft = 0;
// A copy of the first records.
constexpr uint64_t record_mftmirr = 1;
// The journal, see core/journal for what Tavelin keeps in it.
constexpr uint64_t record_logfile = 2;
constexpr uint64_t record_volume = 3;
constexpr uint64_t record_attrdef = 4;
constexpr uint64_t record_root = 5;
// A bit for each cluster: set for those in use.
constexpr uint64_t record_bitmap = 6;
constexpr uint64_t record_boot = 7;
// A stream of the volume's size whose only clusters are the bad ones.
constexpr uint64_t record_badclus = 8;
// Security descriptors, shared by number.
constexpr uint64_t record_secure = 9;
// The upper-case form of each UTF-16 unit, by which directories are sorted.
constexpr uint64_t record_upcase = 10;
// A directory of further system files.
constexpr uint64_t record_extend = 11;
constexpr uint64_t first_reserved_record = 12; // up to first_user_record: used by no file
constexpr uint64_t first_user_record = 24;     // for mkntfs; from 16 on for others

// Namespaces of a file name.
// Case matters and nearly all characters may occur. libntfs-3g gives names of this kind.
constexpr uint8_t namespace_posix = 0;
// A name that Windows can use and that needs a DOS name beside it.
constexpr uint8_t namespace_win32 = 1;
// The 8.3 alias of a Win32 name. Both belong to one link of the file and go together.
constexpr uint8_t namespace_dos = 2;
// A Win32 name that is a valid DOS name itself.
constexpr uint8_t namespace_win32_and_dos = 3;

// A file reference: the record's number and, in the upper 16 bits, its sequence number.
[[nodiscard]] constexpr uint64_t reference_record(uint64_t reference) noexcept {
    return reference & 0xffffffffffff;
}
[[nodiscard]] constexpr uint16_t reference_sequence(uint64_t reference) noexcept {
    return static_cast<uint16_t>(reference >> 48);
}
[[nodiscard]] constexpr uint64_t make_reference(uint64_t record, uint16_t sequence) noexcept {
    return record | static_cast<uint64_t>(sequence) << 48;
}
static_assert(reference_record(make_reference(record_extend, 0xffff)) == record_extend &&
              reference_sequence(make_reference(record_extend, 0xffff)) == 0xffff);

} // namespace ntb
