// The volume handle behind ntb_vol.
#pragma once

#include "NTFSBridge/device/devctx.hpp"
#include "NTFSBridge/guards.hpp"
#include "NTFSBridge/ntb.h"
#include "NTFSBridge/ondisk/mft_mirror.hpp"
#include "NTFSBridge/outdated_entries.hpp"
#include "NTFSBridge/system_compression.hpp"

namespace ntb {

// What is free, as the library counts it.
struct free_counts {
    s64 clusters = 0;
    s64 records = 0;
};

// In the place of a record's number.
inline constexpr uint64_t usn_journal_unknown = UINT64_MAX; // not looked for yet
inline constexpr uint64_t no_usn_journal = 0;               // record 0 is $MFT's

} // namespace ntb

struct ntb_vol {
    // The library's volume, replaced when an operation was undone.
    ntfs_volume* volume = nullptr;
    ntb_io io = {};
    uint32_t read_only = 0; // as asked at mount; the library's own decision is in volume
    // New names that Windows cannot use are refused.
    uint32_t windows_names = 0; // 0 or 1
    bool ordered_writes = true; // see ntb_set_ordered_writes
    bool reads_owners = false;  // see ntb_set_reads_owners
    // From the boot sector.
    uint64_t serial = 0;
    ntb_stats stats = {};
    // Record of Windows' change journal, see usn_journal.hpp.
    uint64_t usn_journal = ntb::usn_journal_unknown;
    bool usn_search_failed = false;
    bool is_usn_stamped = false; // once a mount, with the first change
    // Of the system-compressed files that were read last.
    ntb::compressed_readers compressed;
    ntb::outdated_entries outdated; // of files that were written to since the last sync
    ntb::free_counts free_before;   // when the operation that is under way began
    // The library's volume is that of an operation that was taken back: it may be read, and what it
    // writes is dropped.
    bool is_stale = false;
    // Of a volume mounted read-only whose $MFTMirr differs from $MFT: what its reads go through.
    std::unique_ptr<ntb::mft_mirror> mirror;
    std::unique_ptr<ntb::ntb_devctx> context; // the library device's private pointer
};

namespace ntb {

inline constexpr uint64_t first_user_ino = 16; // records below are system files
inline constexpr uint64_t extend_ino = 11;     // $Extend, the directory of further system files

// Steps of a walk from a directory up to the root. A sound volume needs far fewer: it ends the walk
// on a damaged one whose directories form a loop.
inline constexpr int directory_depth_max = 4096;

// By request, or because the library decided so at the mount: after a hibernation, for example.
inline bool is_read_only(const ntb_vol* vol) noexcept {
    return vol->read_only != 0 || NVolReadOnly(vol->volume);
}

// Opens the library's volume over the device context; errno or EIO. Counts what is free unless
// that is given.
[[nodiscard]] int32_t open_library_volume(ntb_vol& vol, const free_counts* known_free) noexcept;

// Opens a record; errno or ENOENT. ENOTDIR when it is no directory.
[[nodiscard]] int32_t open_directory(const ntb_vol* vol, uint64_t ino, inode_guard& out) noexcept;

// Has the library write the changed records that it keeps open until unmount, such as the one with
// the label; errno or EIO.
[[nodiscard]] int32_t write_open_records(const ntb_vol* vol) noexcept;

// Writes open records and all dirty pages, then syncs the device; errno or EIO.
[[nodiscard]] int32_t sync_device(ntb_vol* vol) noexcept;

} // namespace ntb
