#include "core/observed_device.hpp"

#include <algorithm>

namespace tavelin {

ObservedDevice::Reading::Reading(ObservedDevice& device, std::span<const ntb_extent> places)
    : device_(device), places_(places) {
    const MutexLock held(device_.lock_);
    next_ = std::exchange(device_.first_, this);
}

ObservedDevice::Reading::~Reading() {
    const MutexLock held(device_.lock_);
    Reading** link = &device_.first_;
    while (*link != this) {
        link = &(*link)->next_;
    }
    *link = next_;
    device_.ended_.notifyAll();
}

std::int32_t ObservedDevice::Reading::read(std::byte* destination) noexcept {
    for (const ntb_extent& place : places_) {
        const std::int32_t error = device_.inner_->read(destination, place.offset, place.length);
        if (error != 0) {
            return error;
        }
        destination += place.length;
    }
    return 0;
}

bool ObservedDevice::Reading::isIntact() const noexcept {
    const MutexLock held(device_.lock_);
    return isIntact_;
}

void ObservedDevice::awaitReadings() noexcept {
    const MutexLock held(lock_);
    while (first_ != nullptr) {
        ended_.wait(lock_);
    }
}

void ObservedDevice::spoil(std::uint64_t offset, std::uint64_t length) noexcept {
    const auto isHit = [&](const ntb_extent& place) {
        return place.offset < offset + length && offset < place.offset + place.length;
    };
    const MutexLock held(lock_);
    for (Reading* reading = first_; reading != nullptr; reading = reading->next_) {
        reading->isIntact_ = reading->isIntact_ && std::ranges::none_of(reading->places_, isHit);
    }
}

std::int32_t ObservedDevice::write(const std::byte* source, std::uint64_t offset,
                                   std::uint64_t length) noexcept {
    spoil(offset, length);
    return inner_->write(source, offset, length);
}

std::int32_t ObservedDevice::writeGathered(GatheredBytes parts, std::uint64_t offset) noexcept {
    spoil(offset, bytesIn(parts));
    return inner_->writeGathered(parts, offset);
}

std::int32_t ObservedDevice::discard(std::uint64_t offset, std::uint64_t length) noexcept {
    spoil(offset, length);
    return inner_->discard(offset, length);
}

} // namespace tavelin
