/// A device that is read while it is written to, and knows of each such read whether it counts.
///
/// A volume reads and writes its device under its lock. The content of a file may take long to
/// read, and need not keep the lock: where its bytes are is found out under the lock, they are read
/// without, and they are what the file had as long as nothing has been written there since. Who
/// owns the places by then does not matter: what was freed and given to another file still has the
/// bytes of the first until the other's are written. So all writes and discards of the device go
/// through this one, which compares them with the reads that are under way.
#pragma once

#include "core/block_device.hpp"
#include "platform/lock_order.hpp"
#include "platform/mutex.hpp"

#include <memory>
#include <span>
#include <utility>

namespace tavelin {

/// Hands all calls on to the device below. Those of BlockDevice keep to its rule, one at a time; a
/// Reading goes beside them.
class ObservedDevice final : public BlockDevice {
  public:
    /// `inner` must allow reads beside other calls; nobody else may write to it.
    explicit ObservedDevice(std::shared_ptr<BlockDevice> inner) : inner_(std::move(inner)) {}

    /// One read of some places of the device, in whole blocks, from the moment when it is known
    /// that they have what is wanted. Made under the lock that orders the device's calls; from then
    /// on the thread that reads may be any one and needs no lock.
    class Reading {
      public:
        /// Device and places must outlive it.
        Reading(ObservedDevice& device, std::span<const ntb_extent> places);
        ~Reading();
        Reading(const Reading&) = delete;
        Reading& operator=(const Reading&) = delete;

        /// Reads all places, one behind the other. As BlockDevice::read(); what is there after an
        /// error, or when it turns out not to be intact, may be anybody's.
        [[nodiscard]] std::int32_t read(std::byte* destination) noexcept;
        /// Whether, up to now, nothing has been written to any of the places.
        [[nodiscard]] bool isIntact() const noexcept;

      private:
        friend class ObservedDevice;
        ObservedDevice& device_;
        const std::span<const ntb_extent> places_;
        // Guarded by the device's lock, which the analysis cannot name here.
        Reading* next_ = nullptr;
        bool isIntact_ = true;
    };
    /// Returns once no Reading is left. The caller sees to it that none is made meanwhile.
    void awaitReadings() noexcept;

    [[nodiscard]] std::uint64_t size() const noexcept override { return inner_->size(); }
    [[nodiscard]] std::uint32_t blockSize() const noexcept override { return inner_->blockSize(); }
    [[nodiscard]] std::int32_t read(std::byte* destination, std::uint64_t offset,
                                    std::uint64_t length) noexcept override {
        return inner_->read(destination, offset, length);
    }
    [[nodiscard]] std::int32_t write(const std::byte* source, std::uint64_t offset,
                                     std::uint64_t length) noexcept override;
    [[nodiscard]] std::int32_t writeGathered(GatheredBytes parts,
                                             std::uint64_t offset) noexcept override;
    [[nodiscard]] std::int32_t sync() noexcept override { return inner_->sync(); }
    [[nodiscard]] std::int32_t discard(std::uint64_t offset,
                                       std::uint64_t length) noexcept override;

  private:
    /// Before anything changes in a range: no read of it counts that has not ended.
    void spoil(std::uint64_t offset, std::uint64_t length) noexcept;

    const std::shared_ptr<BlockDevice> inner_;
    mutable Mutex lock_ TAVELIN_ACQUIRED_AFTER(lock_order::volume)
        TAVELIN_ACQUIRED_BEFORE(lock_order::leaves);
    ConditionVariable ended_; ///< a Reading is gone
    Reading* first_ TAVELIN_GUARDED_BY(lock_) = nullptr;
};

} // namespace tavelin
