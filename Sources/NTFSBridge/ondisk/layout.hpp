// Constants of the NTFS format, under the names that its published descriptions use.
#pragma once

#include <cstdint>

namespace ntb {

// Types of attributes. A record holds its attributes in ascending order of type.
enum attribute_type : uint32_t {
    at_standard_information = 0x10,
    at_attribute_list = 0x20,
    at_file_name = 0x30,
    at_object_id = 0x40,
    at_security_descriptor = 0x50,
    at_volume_name = 0x60,
    at_volume_information = 0x70,
    at_data = 0x80,
    at_index_root = 0x90,
    at_index_allocation = 0xa0,
    at_bitmap = 0xb0,
    at_reparse_point = 0xc0,
    at_ea_information = 0xd0,
    at_ea = 0xe0,
    at_logged_utility_stream = 0x100,
    at_end = 0xffffffff,
};

// Flags of an attribute.
constexpr uint16_t attribute_compressed = 0x0001; // the low byte is the method, 1 is LZNT1
constexpr uint16_t attribute_compression_mask = 0x00ff;
constexpr uint16_t attribute_encrypted = 0x4000;
constexpr uint16_t attribute_sparse = 0x8000;

// Flags of a file record.
constexpr uint16_t record_in_use = 0x0001;
constexpr uint16_t record_is_directory = 0x0002;
constexpr uint16_t record_is_view_index = 0x0008;

// Record numbers of the system files.
constexpr uint64_t record_mft = 0;
constexpr uint64_t record_mftmirr = 1;
constexpr uint64_t record_logfile = 2;
constexpr uint64_t record_volume = 3;
constexpr uint64_t record_attrdef = 4;
constexpr uint64_t record_root = 5;
constexpr uint64_t record_bitmap = 6;
constexpr uint64_t record_boot = 7;
constexpr uint64_t record_badclus = 8;
constexpr uint64_t record_secure = 9;
constexpr uint64_t record_upcase = 10;
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
