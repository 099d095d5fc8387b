// Which of a file's bytes have clusters.
#include "core/ntfs_volume.hpp"
#include "core/private/data_change.hpp"

#include <algorithm>
#include <vector>

namespace tavelin {

void NTFSVolume::initialise(std::uint64_t ino, std::uint64_t end) {
    const std::int32_t result = locked([&](ntb_vol* vol) {
        const BulkWriteScope bulk(*box_.device, vol, NTB_INITIALISE_BYTES_MAX);
        return ntb_initialise(vol, ino, end);
    });
    checkData(result, ino, "written");
}

void NTFSVolume::writeZeroes(std::uint64_t ino, std::uint64_t from, std::uint64_t to,
                             bool overData) {
    constexpr std::uint64_t kPieceBytes = 1 << 20; // others come to their turn between two
    const std::vector<std::byte> zeroes(static_cast<std::size_t>(std::min(to - from, kPieceBytes)));
    while (from < to) {
        std::uint64_t done = 0;
        const auto piece = [&](ntb_vol* vol) -> std::int32_t {
            std::uint64_t end = to;
            if (!overData) {
                // Found and filled under one lock: what is written meanwhile is no hole any more.
                if (const std::int32_t error = ntb_seek(vol, ino, from, 1, &from); error != 0) {
                    return error;
                }
                const std::int32_t error = ntb_seek(vol, ino, from, 0, &end);
                if (error != 0 && error != ENXIO) {
                    return error;
                }
                end = error == ENXIO ? to : std::min(end, to);
            }
            if (from >= end) {
                return 0;
            }
            const std::size_t length =
                static_cast<std::size_t>(std::min<std::uint64_t>(end - from, zeroes.size()));
            return changeData(*box_.device, vol, ino, [&] {
                const BulkWriteScope bulk(*box_.device, vol, length);
                return ntb_write(vol, ino, from, zeroes.data(), length, &done);
            });
        };
        const std::int32_t result = locked(piece);
        if (result == ENODATA) {
            initialise(ino, from);
            continue;
        }
        from += done;
        if (result == ENXIO || (result == 0 && done == 0)) {
            return; // the file ends, or has no more holes, before the range does
        }
        checkData(result, ino, "written");
    }
}

void NTFSVolume::allocate(std::uint64_t ino, std::uint64_t offset, std::uint64_t length,
                          NTFSAllocation how) {
    if (how == NTFSAllocation::punchHole) {
        const std::int32_t result = locked([&](ntb_vol* vol) {
            return changeData(*box_.device, vol, ino, [&] {
                const BulkWriteScope bulk(*box_.device, vol, static_cast<std::size_t>(length));
                return ntb_punch(vol, ino, offset, length);
            });
        });
        checkData(result, ino, "changed");
        return;
    }
    const bool keepsSize =
        how == NTFSAllocation::reserveBehindEnd || how == NTFSAllocation::zeroKeepingSize;
    ntb_attr before{};
    const std::int32_t result = locked([&](ntb_vol* vol) {
        const std::int32_t error = ntb_getattr(vol, ino, &before);
        return error != 0 ? error : changeData(*box_.device, vol, ino, [&] {
            return ntb_allocate(vol, ino, offset, length, keepsSize ? 1 : 0);
        });
    });
    checkData(result, ino, "changed");
    const std::uint64_t end = std::min(offset + length, before.size);
    if (offset < end) {
        writeZeroes(ino, offset, end,
                    how == NTFSAllocation::zero || how == NTFSAllocation::zeroKeepingSize);
    }
}

void NTFSVolume::freeBehindEnd(std::uint64_t ino, std::uint64_t keep) {
    check(locked([&](ntb_vol* vol) { return ntb_trim(vol, ino, keep); }));
}

std::uint64_t NTFSVolume::seek(std::uint64_t ino, std::uint64_t offset, bool forHole) {
    std::uint64_t found = 0;
    check(
        locked([&](ntb_vol* vol) { return ntb_seek(vol, ino, offset, forHole ? 1 : 0, &found); }));
    return found;
}

} // namespace tavelin
