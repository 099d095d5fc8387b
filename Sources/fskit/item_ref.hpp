/// A host's hold on an item of its volume.
#pragma once

#include "fskit/extended_operations.hpp"
#include "platform/assert.hpp"

#include <utility>

namespace tavelin {

/// One hand-out of an item, given back when the handle goes; the last one reclaims the item. The
/// volume itself counts them, under the lock that a lookup takes, so no lookup can answer an item
/// that is being reclaimed.
///
/// Must not outlive its module host; one that outlives the volume's deactivation is good for
/// nothing but its destruction. May be used by several threads at a time, except to move it.
class ItemRef {
  public:
    /// An empty handle, which gives nothing back.
    ItemRef() = default;
    /// Takes over one hand-out of `item`.
    ItemRef(ExtendedOperations& volume, fskit::FSItemRef item) noexcept
        : volume_(&volume), item_(std::move(item)) {
        TAVELIN_ASSERT(item_ != nullptr);
    }
    /// The other handle is empty afterwards.
    ItemRef(ItemRef&& other) noexcept
        : volume_(other.volume_), item_(std::exchange(other.item_, nullptr)) {}
    /// Swaps, so that the old item is given back when the other handle goes, and not under a lock
    /// that the caller may hold.
    ItemRef& operator=(ItemRef&& other) noexcept {
        std::swap(volume_, other.volume_);
        std::swap(item_, other.item_);
        return *this;
    }
    ~ItemRef() {
        TAVELIN_ASSERT(item_ == nullptr || volume_ != nullptr);
        // An item always comes with its volume; naming both lets static analysis see that.
        if (item_ != nullptr && volume_ != nullptr) {
            volume_->release(item_);
        }
    }

    /// Whether there is an item.
    explicit operator bool() const noexcept { return item_ != nullptr; }
    /// Absent for an empty handle.
    [[nodiscard]] const fskit::FSItemRef& item() const noexcept { return item_; }
    /// Whether both are references to the same item.
    [[nodiscard]] bool operator==(const ItemRef& other) const noexcept {
        return item_ == other.item_;
    }
    /// One more reference to the same item.
    [[nodiscard]] ItemRef duplicate() const {
        if (item_ == nullptr) {
            return {};
        }
        volume_->retain(item_);
        return {*volume_, item_};
    }

  private:
    /// Where the hand-out is given back; null in an empty handle. The module host keeps it alive.
    ExtendedOperations* volume_ = nullptr;
    fskit::FSItemRef item_;
};

} // namespace tavelin
