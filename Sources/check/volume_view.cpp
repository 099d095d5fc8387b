#include "check/private/volume_view.hpp"

namespace tavelin::check {
namespace {

// Offsets in $VOLUME_INFORMATION.
constexpr std::size_t kInformationMajor = 8;
constexpr std::size_t kInformationMinor = 9;
constexpr std::size_t kInformationFlags = 10;
constexpr std::size_t kInformationBytes = 12;

} // namespace

VolumeView::VolumeView(BlockDevice& device) : volume_(device, options_, report_) {
    try {
        volume_.open();
        isReadable_ = true;
    } catch (const Unreadable&) {
        isReadable_ = false; // whoever opens the volume in earnest says why
    }
}

VolumeInformation VolumeView::information() {
    File file;
    const Attribute* const found = volume_.loadFile(ntb::record_volume, file)
                                       ? file.find(ntb::at_volume_information)
                                       : nullptr;
    if (found == nullptr || !found->isResident() || found->size() < kInformationBytes) {
        return {};
    }
    const std::uint8_t* const value = found->first.value().data();
    return {value[kInformationMajor], value[kInformationMinor],
            ntb::u16_at(value, kInformationFlags)};
}

} // namespace tavelin::check
