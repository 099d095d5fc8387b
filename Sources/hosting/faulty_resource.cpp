#include "hosting/faulty_resource.hpp"

#include <algorithm>

namespace tavelin {

std::size_t FaultyResource::admit(const Transfer& transfer) const {
    const Fault fault = hook_(transfer);
    if (fault.error) {
        throw fskit::Error(*fault.error);
    }
    return std::min(transfer.length, fault.bytes.value_or(transfer.length));
}

std::size_t FaultyResource::read(std::byte* buffer, std::uint64_t offset, std::size_t length) {
    const std::size_t admitted = admit({Call::read, offset, length});
    return admitted == 0 ? 0 : device_->read(buffer, offset, admitted);
}

std::size_t FaultyResource::write(const std::byte* buffer, std::uint64_t offset,
                                  std::size_t length) {
    const std::size_t admitted = admit({Call::write, offset, length});
    return admitted == 0 ? 0 : device_->write(buffer, offset, admitted);
}

void FaultyResource::metadataRead(std::byte* buffer, std::uint64_t offset, std::size_t length) {
    admit({Call::metadataRead, offset, length});
    device_->metadataRead(buffer, offset, length);
}

void FaultyResource::delayedMetadataWrite(const std::byte* buffer, std::uint64_t offset,
                                          std::size_t length) {
    admit({Call::metadataWrite, offset, length});
    device_->delayedMetadataWrite(buffer, offset, length);
}

void FaultyResource::metadataFlush() {
    admit({Call::metadataFlush, 0, 0});
    device_->metadataFlush();
}

std::optional<fskit::Error> FaultyResource::flushToMedium() {
    const Fault fault = hook_({Call::flushToMedium, 0, 0});
    return fault.error ? fault.error : device_->flushToMedium();
}

} // namespace tavelin
