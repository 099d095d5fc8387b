// Which files' directory entries are older than the files.
//
// Each entry of a directory has a copy of its file's sizes and times, for listings that do not open
// every record. Bringing one up to date means finding it in the index and writing its block, which
// is half of the cost of a small write. Files that are written to again and again therefore have
// theirs brought up to date when the volume is synced, as Windows does it when a file is closed.
// Nothing in the bridge reads the copies.
//
// Not safe for use from two threads at a time.
#pragma once

#include "NTFSBridge/guards.hpp"

#include <array>

namespace ntb {

class outdated_entries {
  public:
    // Takes over a changed inode's duty to bring its entries up to date when it is closed. Leaves
    // it there where another file has the place, and for files of many names.
    void defer(ntfs_inode* inode) noexcept;

    // How many pages update() makes dirty at most. What one sync writes must fit into one record of
    // the journal.
    uint64_t page_count(const ntfs_volume* volume) const noexcept;

    // Brings all of them up to date; 0, or the first errno. Those that failed are given up too: the
    // file itself has been written, and a record that cannot be read must not keep all others from
    // the device.
    [[nodiscard]] int32_t update(ntfs_volume* volume) noexcept;

  private:
    // A power of two. Enough for the files that programs keep writing to, and few enough that their
    // pages do not make syncs more frequent.
    static constexpr uint64_t places = 64;
    // Of a file whose entries are brought up to date late: one, and its 8.3 alias.
    static constexpr uint16_t names_max = 2;

    uint64_t count_ = 0;
    // By record number: references with the sequence number, or 0.
    std::array<uint64_t, places> references_ = {};
};

} // namespace ntb
