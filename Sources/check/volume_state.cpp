#include "check/volume_state.hpp"

#include "check/private/volume_view.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

namespace tavelin::check {
namespace {

// Offsets in a restart page's header, and from there in its restart area (Windows' LFS).
constexpr std::size_t kAreaOffset = 0x18;
constexpr std::size_t kMajorVersion = 0x1c;
constexpr std::size_t kClientInUse = 0x0c;
constexpr std::size_t kAreaFlags = 0x0e;
constexpr std::uint16_t kNoClient = 0xffff;
constexpr std::uint16_t kVolumeIsClean = 0x0002;
/// Major version of a log that Windows leaves in use over a shutdown with fast startup.
constexpr std::uint16_t kFastStartVersion = 2;
/// The first page. Its header and restart area lie before the first fixup, at 510.
constexpr std::size_t kHeadBytes = 512;
static_assert(kMajorVersion + sizeof(std::uint16_t) <= kHeadBytes);
constexpr std::uint64_t kBitmapBytesMax = 64 << 20; // 512 million records

void readLog(Volume& volume, VolumeState& state) {
    File file;
    const Attribute* const data =
        volume.loadFile(ntb::record_logfile, file) ? file.find(ntb::at_data) : nullptr;
    std::array<std::uint8_t, kHeadBytes> head{};
    if (data == nullptr || volume.read(*data, 0, head) != 0) {
        return;
    }
    if (std::all_of(head.begin(), head.end(), [](std::uint8_t byte) { return byte == 0xff; })) {
        state.log = LogState::empty;
    } else if (std::memcmp(head.data(), "CHKD", 4) == 0) {
        state.log = LogState::resetByChk;
    } else if (std::memcmp(head.data(), "RSTR", 4) == 0) {
        const std::size_t area = ntb::u16_at(head.data(), kAreaOffset);
        if (area + kAreaFlags + sizeof(std::uint16_t) > head.size()) {
            return;
        }
        const bool clean = ntb::u16_at(head.data(), area + kClientInUse) == kNoClient ||
                           (ntb::u16_at(head.data(), area + kAreaFlags) & kVolumeIsClean) != 0;
        state.log = clean ? LogState::clean : LogState::inUse;
        state.isFastStarted =
            !clean && ntb::u16_at(head.data(), kMajorVersion) == kFastStartVersion;
    }
}

void readRecordCounts(Volume& volume, VolumeState& state) {
    const Attribute* const bitmap = volume.mft().find(ntb::at_bitmap);
    const auto bits = bitmap == nullptr ? std::nullopt : volume.readAll(*bitmap, kBitmapBytesMax);
    state.records = volume.recordCount();
    if (!bits) {
        state.recordsInUse = state.records;
        return;
    }
    // The bitmap is longer than the table: it grows in steps of eight bytes.
    const std::size_t whole = std::min<std::uint64_t>(bits->size(), state.records / 8);
    for (std::size_t i = 0; i < whole; ++i) {
        state.recordsInUse += static_cast<unsigned>(std::popcount((*bits)[i]));
    }
}

} // namespace

std::optional<VolumeState> readVolumeState(BlockDevice& device) {
    VolumeView view(device);
    if (!view.isReadable()) {
        return std::nullopt;
    }
    const VolumeInformation information = view.information();
    VolumeState state;
    state.flags = information.flags;
    state.majorVersion = information.majorVersion;
    state.minorVersion = information.minorVersion;
    readLog(view.volume(), state);
    readRecordCounts(view.volume(), state);
    return state;
}

} // namespace tavelin::check
