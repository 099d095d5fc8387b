#include "NTFSBridge/usn_journal.hpp"

#include "NTFSBridge/ondisk/little_endian.hpp"

#include <string_view>

namespace ntb {
namespace {

constexpr u32 usn_name_units_max = 8;

// A name in the library's characters.
struct ascii_name {
    explicit ascii_name(std::string_view text) noexcept : length(static_cast<u32>(text.size())) {
        std::transform(text.begin(), text.end(), units,
                       [](char c) { return cpu_to_le16(static_cast<u16>(c)); });
    }
    ntfschar units[usn_name_units_max] = {};
    u32 length;
};

// The stream $Max, as Windows has it: sizes, then what is replaced here.
constexpr s64 max_stream_bytes = 32;
constexpr s64 identity_offset = 16; // a FILETIME, then the lowest USN that can be asked for
constexpr s64 identity_bytes = 16;

int32_t write_identity(ntfs_inode* inode) noexcept {
    ascii_name max_name("$Max");
    ascii_name journal_name("$J");
    const attribute_guard max(ntfs_attr_open(inode, AT_DATA, max_name.units, max_name.length));
    const attribute_guard journal(
        ntfs_attr_open(inode, AT_DATA, journal_name.units, journal_name.length));
    // A journal without these is none that anybody could read.
    if (!max || !journal || max->data_size < max_stream_bytes) {
        return 0;
    }
    uint8_t identity[identity_bytes];
    if (ntfs_attr_pread(max.get(), identity_offset, identity_bytes, identity) != identity_bytes) {
        return err_or(EIO);
    }
    // Newer than the one before it even where the clock is not.
    const auto before = static_cast<int64_t>(u64_at(identity, 0));
    const int64_t id = std::max(static_cast<int64_t>(sle64_to_cpu(ntfs_current_time())),
                                before < INT64_MAX ? before + 1 : before);
    put_at(identity, 0, 8, static_cast<uint64_t>(id));
    put_at(identity, 8, 8, static_cast<uint64_t>(journal->data_size));
    if (ntfs_attr_pwrite(max.get(), identity_offset, identity_bytes, identity) != identity_bytes) {
        return err_or(EIO);
    }
    return 0;
}

int32_t search(const ntb_vol* vol, uint64_t& record) noexcept {
    record = no_usn_journal;
    inode_guard extend;
    if (const int32_t error = extend.open(vol->volume, extend_ino); error != 0) {
        return error == ENOENT ? 0 : error; // NTFS before Windows 2000 has none
    }
    ascii_name name("$UsnJrnl");
    errno = 0;
    const u64 found =
        ntfs_inode_lookup_by_name(extend.get(), name.units, static_cast<int>(name.length));
    const int32_t error = err_or(EIO);
    if (found != static_cast<u64>(-1)) {
        record = MREF(found);
        return 0;
    }
    return error == ENOENT ? 0 : error;
}

} // namespace

int32_t find_usn_journal(ntb_vol* vol) noexcept {
    if (vol->usn_journal != usn_journal_unknown) {
        return 0;
    }
    uint64_t record = no_usn_journal;
    if (const int32_t error = search(vol, record); error != 0 && !vol->usn_search_failed) {
        vol->usn_search_failed = true;
        return error;
    }
    vol->usn_journal = record;
    return 0;
}

int32_t stamp_usn_journal(const ntb_vol* vol) noexcept {
    if (vol->usn_journal == no_usn_journal || vol->usn_journal == usn_journal_unknown) {
        return 0;
    }
    inode_guard journal;
    if (const int32_t error = journal.open(vol->volume, vol->usn_journal); error != 0) {
        return error;
    }
    const int32_t error = write_identity(journal.get());
    const int32_t closing = journal.close();
    return error != 0 ? error : closing;
}

} // namespace ntb
