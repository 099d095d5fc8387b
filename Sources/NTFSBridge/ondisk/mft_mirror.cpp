#include "NTFSBridge/ondisk/mft_mirror.hpp"

#include "NTFSBridge/device/block_io.hpp"
#include "NTFSBridge/ondisk/volume_reader.hpp"
#include "platform/assert.hpp"

#include <algorithm>
#include <cstring>
#include <new>

namespace ntb {
namespace {

int32_t forget_write(void*, const void*, uint64_t, uint64_t) noexcept {
    return 0;
}

} // namespace

bool mft_mirror::locate() noexcept {
    boot_sector boot;
    if (read_boot_sector(device_, boot) != 0) {
        return false;
    }
    record_size_ = boot.record_size;
    record_count_ = mirrored_records(boot);
    table_.offset = boot.mft_lcn * boot.cluster_size;
    mirror_.offset = boot.mftmirr_lcn * boot.cluster_size;
    const uint64_t size = record_count_ * record_size_;
    // Tables that overlap would be one table twice: bringing them into agreement would write one
    // record over another.
    const uint64_t distance =
        std::max(table_.offset, mirror_.offset) - std::min(table_.offset, mirror_.offset);
    return distance >= size && is_within(table_.offset, size, device_.size) &&
           is_within(mirror_.offset, size, device_.size);
}

bool mft_mirror::fetch(copy& side) const noexcept {
    const uint64_t size = record_count_ * record_size_;
    side.records.reset(new (std::nothrow) uint8_t[size]);
    side.is_changed.reset(new (std::nothrow) bool[record_count_]());
    return side.records && side.is_changed &&
           io_read(device_, nullptr, side.records.get(), side.offset, size) == 0;
}

void mft_mirror::take_over(const copy& from, copy& to, uint64_t number) const noexcept {
    TAVELIN_ASSERT(number < record_count_ && !to.is_changed[number]);
    std::memcpy(to.records.get() + number * record_size_,
                from.records.get() + number * record_size_, record_size_);
    to.is_changed[number] = true;
}

bool mft_mirror::plan() noexcept {
    if (!locate() || !fetch(table_) || !fetch(mirror_)) {
        return false;
    }
    bool differ = false;
    for (uint64_t number = 0; number < record_count_; ++number) {
        const uint8_t* const original = table_.records.get() + number * record_size_;
        const uint8_t* const second = mirror_.records.get() + number * record_size_;
        if (std::memcmp(original, second, record_size_) == 0) {
            continue;
        }
        differ = true;
        // The library writes the record of $MFT before its copy: a whole one is the newer of the
        // two.
        if (fixups_match({original, record_size_}, number)) {
            take_over(table_, mirror_, number);
        } else if (fixups_match({second, record_size_}, number)) {
            take_over(mirror_, table_, number);
        } else {
            return false;
        }
    }
    return differ;
}

void mft_mirror::overlay(const copy& side, uint8_t* buffer, uint64_t offset,
                         uint64_t length) const noexcept {
    TAVELIN_ASSERT(side.records != nullptr);
    const uint64_t begin = std::max(offset, side.offset);
    const uint64_t end = std::min(offset + length, side.offset + record_count_ * record_size_);
    if (begin < end) {
        std::memcpy(buffer + (begin - offset), side.records.get() + (begin - side.offset),
                    end - begin);
    }
}

int32_t mft_mirror::read_preview(void* context, void* buffer, uint64_t offset,
                                 uint64_t length) noexcept {
    const mft_mirror& self = *static_cast<mft_mirror*>(context);
    const int32_t error = self.device_.read(self.device_.context, buffer, offset, length);
    // The two never overlap, see locate(), so the order of the overlays does not matter.
    if (error == 0) {
        self.overlay(self.table_, static_cast<uint8_t*>(buffer), offset, length);
        self.overlay(self.mirror_, static_cast<uint8_t*>(buffer), offset, length);
    }
    return error;
}

ntb_io mft_mirror::overlay_io() noexcept {
    ntb_io view = device_;
    view.context = this;
    view.read = read_preview;
    view.write = forget_write;
    view.write_data = nullptr;
    view.sync = nullptr;
    return view;
}

int32_t mft_mirror::write_changes(const copy& side) const noexcept {
    TAVELIN_ASSERT(side.records != nullptr && side.is_changed != nullptr);
    for (uint64_t number = 0; number < record_count_; ++number) {
        if (!side.is_changed[number]) {
            continue;
        }
        const uint64_t at = number * record_size_;
        const int32_t error =
            io_write(device_, nullptr, side.records.get() + at, side.offset + at, record_size_);
        if (error != 0) {
            return error;
        }
    }
    return 0;
}

int32_t mft_mirror::commit() noexcept {
    // Each record is changed on one side only, and its other side is whole. A power cut in between
    // leaves what plan() can bring into agreement again.
    if (const int32_t error = write_changes(table_); error != 0) {
        return error;
    }
    if (const int32_t error = write_changes(mirror_); error != 0) {
        return error;
    }
    return device_.sync != nullptr ? device_.sync(device_.context) : 0;
}

} // namespace ntb
