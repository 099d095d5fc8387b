#include "core/device_box.hpp"

#include "platform/checked.hpp"

#include <utility>

namespace tavelin {

namespace {

DeviceBox& boxOf(void* context) noexcept {
    if (context == nullptr) {
        fatal("a device callback was called without its context");
    }
    return *static_cast<DeviceBox*>(context);
}

std::int32_t noted(DeviceBox& box, std::int32_t result) noexcept {
    if (result != 0) {
        box.hasFailed = true;
    }
    return result;
}

void requireBuffer(const void* buffer) noexcept {
    if (buffer == nullptr) {
        fatal("a device callback was called without a buffer");
    }
}

std::int32_t readCallback(void* context, void* buffer, std::uint64_t offset,
                          std::uint64_t length) noexcept {
    requireBuffer(buffer);
    DeviceBox& box = boxOf(context);
    return noted(box, box.device->read(static_cast<std::byte*>(buffer), offset, length));
}

std::int32_t writeCallback(void* context, const void* buffer, std::uint64_t offset,
                           std::uint64_t length) noexcept {
    requireBuffer(buffer);
    DeviceBox& box = boxOf(context);
    return noted(box, box.device->write(static_cast<const std::byte*>(buffer), offset, length));
}

std::int32_t writeDataCallback(void* context, const void* buffer, std::uint64_t offset,
                               std::uint64_t length) noexcept {
    requireBuffer(buffer);
    DeviceBox& box = boxOf(context);
    return noted(box,
                 box.device->writeFileData(static_cast<const std::byte*>(buffer), offset, length));
}

std::int32_t syncCallback(void* context) noexcept {
    DeviceBox& box = boxOf(context);
    return noted(box, box.device->sync());
}

} // namespace

DeviceBox::DeviceBox(std::shared_ptr<BlockDevice> boxed) : device(std::move(boxed)) {
    if (device == nullptr) {
        fatal("a device box was made without a device");
    }
}

ntb_io makeIO(DeviceBox& box) noexcept {
    return {.context = &box,
            .read = readCallback,
            .write = writeCallback,
            .write_data = writeDataCallback,
            .sync = syncCallback,
            .size = box.device->size(),
            .block_size = box.device->blockSize()};
}

} // namespace tavelin
