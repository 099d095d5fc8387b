/// The joint between a BlockDevice and the bridge's callback table.
#pragma once

#include "NTFSBridge/ntb.h"
#include "core/block_device.hpp"

#include <atomic>
#include <memory>

namespace tavelin {

/// Holds one device for the lifetime of one bridge volume: the bridge's callbacks are given the
/// box as their context.
class DeviceBox {
  public:
    /// The device must not be null.
    /// Keeps the device alive for as long as the bridge may call it.
    explicit DeviceBox(std::shared_ptr<BlockDevice> boxed);

    /// Shared, as the host keeps the device for its own flushes and counters.
    const std::shared_ptr<BlockDevice> device;
    /// Whether the device has failed a call of the bridge so far. What the library finds wrong from
    /// then on may be the device's doing.
    std::atomic<bool> hasFailed = false;
};

/// The table through which the bridge reaches the box's device; size and block size are read once,
/// here. The box is not kept alive by the table: it must outlive every use of it.
[[nodiscard]] ntb_io makeIO(DeviceBox& box) noexcept;

} // namespace tavelin
