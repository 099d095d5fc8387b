// Operations that change a volume happen as a whole or not at all.
//
// The library has no way back: where it fails half-way, for want of room above all, it has already
// written some of the change, and holds more of it in memory. An operation that fails after it
// changed something is therefore taken back below the library, from the kept contents of the pages
// (undo_log.hpp), and the library's volume is opened again over the same cache. Nothing is open
// between two calls of the bridge, so nobody notices.
//
// Not taken back: what went around the cache (bulk file data; all of a volume that has no cache),
// and operations on more pages than the log holds. They end as the library left them.
#pragma once

#include "NTFSBridge/volume.hpp"

namespace ntb {

// ENOSPC unless an operation that needs so many bytes of its own finds room for what it may need of
// the volume besides: index blocks, extension records, an attribute list, records of $MFT. It comes
// before anything is changed. Short of that room, the library may not only fail but try for ever.
[[nodiscard]] int32_t admit(const ntb_vol* vol, uint64_t bytes) noexcept;

// 0, or EIO on a volume whose last failed operation was taken back but which could not be opened
// again, and cannot now.
[[nodiscard]] int32_t begin_operation(ntb_vol* vol) noexcept;

// Takes the operation back when `error` is not 0 and it changed anything; whether it did is stored
// in *taken_back unless that is null. Answers `error`. No inode or attribute of the volume is open.
int32_t end_operation(ntb_vol* vol, int32_t error, bool* taken_back = nullptr) noexcept;

// Runs `body`, which answers 0 or an errno and leaves nothing open, as one operation. Operations do
// not nest.
template<typename Body>
[[nodiscard]] int32_t atomically(ntb_vol* vol, Body body) noexcept {
    const int32_t error = begin_operation(vol);
    return error != 0 ? error : end_operation(vol, body());
}

} // namespace ntb
