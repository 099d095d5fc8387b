#include "lab/others_view.hpp"

#include "check/mount_gate.hpp"
#include "core/device_box.hpp"
#include "lab/disk_device.hpp"
#include "lab/structural_check.hpp"

#include <algorithm>
#include <stdexcept>

namespace tavelin::test {
namespace {

std::shared_ptr<Disk> deviceOf(std::span<const std::byte> image) {
    return std::make_shared<Disk>(Bytes(image.begin(), image.end()));
}

} // namespace

ntb_extent logOf(std::span<const std::byte> image) {
    DeviceBox box(deviceOf(image));
    const ntb_io io = makeIO(box);
    ntb_extent extent{};
    std::uint32_t count = 0;
    if (ntb_log_extents(&io, &extent, 1, &count) != 0) {
        throw std::runtime_error("$LogFile is not in one piece");
    }
    return extent;
}

bool isLogBlank(std::span<const std::byte> image) {
    const ntb_extent log = logOf(image);
    return std::ranges::all_of(image.subspan(log.offset, log.length),
                               [](std::byte byte) { return byte == std::byte{0xff}; });
}

bool isMarked(std::span<const std::byte> image) {
    return check::isMarkedDirty(*deviceOf(image));
}

void setMark(Bytes& image, bool isDirty) {
    const auto device = deviceOf(image);
    DeviceBox box(device);
    const ntb_io io = makeIO(box);
    if (ntb_set_dirty(&io, isDirty ? 1 : 0) != 0) {
        throw std::runtime_error("$Volume has no flags");
    }
    image = std::move(device->bytes);
}

std::string damageWithoutJournal(std::span<const std::byte> image) {
    const ntb_extent log = logOf(image);
    Bytes without(image.begin(), image.end());
    std::ranges::fill(std::span(without).subspan(log.offset, log.length), std::byte{0xff});
    return structuralComplaints(without);
}

std::string unmarkedDamage(std::span<const std::byte> image) {
    if (isMarked(image)) {
        return "";
    }
    std::string found = damageWithoutJournal(image);
    return found.find("mft-mirror") == std::string::npos ? found : "";
}

} // namespace tavelin::test
