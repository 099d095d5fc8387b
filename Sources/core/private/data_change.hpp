/// What every change of a file's data has around it.
#pragma once

#include "NTFSBridge/ntb.h"
#include "core/block_device.hpp"

#include <cerrno>
#include <cstddef>
#include <cstdint>

namespace tavelin {

/// Tells a device, for as long as it lives, that a request writes much of a file. Not when the data
/// may go where another file's would be again after a power cut: then it waits with the rest, or,
/// where it is too much for that, the rest is synced before it.
class BulkWriteScope {
  public:
    BulkWriteScope(BlockDevice& device, ntb_vol* vol, std::size_t length) noexcept
        : device_(length > NTB_CACHED_BYTES_MAX && mayBypassJournal(device, vol, length)
                      ? &device
                      : nullptr) {
        tell(true);
    }
    ~BulkWriteScope() { tell(false); }
    BulkWriteScope(const BulkWriteScope&) = delete;
    BulkWriteScope& operator=(const BulkWriteScope&) = delete;

  private:
    static bool mayBypassJournal(const BlockDevice& device, ntb_vol* vol,
                                 std::size_t length) noexcept {
        const std::uint64_t room = device.backlog().capacity;
        if (room == 0 || ntb_freed_since_sync(vol) == 0) {
            return true;
        }
        return length / BlockDevice::kPageBytes > room / 2 && ntb_sync(vol) == 0;
    }

    void tell(bool on) noexcept {
        if (device_ != nullptr) {
            device_->expectBulkData(on);
        }
    }

    BlockDevice* const device_;
};

/// Decompresses a system-compressed file, whose bytes all go to clusters that are free now.
inline std::int32_t decompress(BlockDevice& device, ntb_vol* vol, std::uint64_t ino) noexcept {
    ntb_attr attributes{};
    if (const std::int32_t error = ntb_getattr(vol, ino, &attributes); error != 0) {
        return error;
    }
    const BulkWriteScope data(device, vol, static_cast<std::size_t>(attributes.size));
    return ntb_decompress(vol, ino);
}

/// Runs a change of a file's data. Where the bytes are not in the unnamed stream, decompresses the
/// file if that is why, as a change of its own, and tries once more.
template<typename Change>
std::int32_t changeData(BlockDevice& device, ntb_vol* vol, std::uint64_t ino,
                        const Change& change) noexcept {
    const std::int32_t error = change();
    if (error != EOPNOTSUPP) {
        return error;
    }
    const std::int32_t decompressed = decompress(device, vol, ino);
    return decompressed != 0 ? decompressed : change();
}

} // namespace tavelin
