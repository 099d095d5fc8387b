#include "NTFSBridge/mft_mirror.hpp"

#include "NTFSBridge/block_io.hpp"

#include <algorithm>
#include <cstring>
#include <new>

namespace ntb {
namespace {

// Of the boot sector, in little endian.
constexpr uint64_t at_sector_size = 0x0b;         // u16, bytes
constexpr uint64_t at_sectors_per_cluster = 0x0d; // u8; from 0x80 on minus the power of two
constexpr uint64_t at_table_cluster = 0x30;       // u64
constexpr uint64_t at_mirror_cluster = 0x38;      // u64
constexpr uint64_t at_record_size = 0x40; // s8: clusters, or minus the power of two of bytes

// Of a file record.
constexpr uint64_t at_sequence_offset = 0x04; // u16, of the update sequence
constexpr uint64_t at_sequence_count = 0x06;  // u16, its number and one word a sector
constexpr uint64_t at_record_number = 0x2c; // u32, where the update sequence does not begin before
constexpr uint64_t end_of_record_number = 0x30;
constexpr uint64_t protected_sector = 512; // bytes that a word of the update sequence protects

constexpr uint64_t smallest_record = 1024;
constexpr uint64_t largest_record = 4096;
constexpr uint64_t largest_cluster = 2u << 20;
constexpr uint64_t fewest_records = 4; // a mirror holds these, or as many as fill a cluster

uint64_t number_at(const uint8_t* bytes, uint64_t offset, unsigned size) noexcept {
    uint64_t number = 0;
    for (unsigned i = size; i > 0; --i) {
        number = number << 8 | bytes[offset + i - 1];
    }
    return number;
}

bool is_power_of_two(uint64_t number) noexcept {
    return number != 0 && (number & (number - 1)) == 0;
}

// 2 to the power of minus the signed byte; 0 for what no volume has.
uint64_t minus_power(uint64_t byte) noexcept {
    const uint64_t power = 0x100 - byte;
    return power < 32 ? uint64_t{1} << power : 0;
}

int32_t forget_write(void*, const void*, uint64_t, uint64_t) noexcept {
    return 0;
}

} // namespace

bool mft_mirror::locate() noexcept {
    uint8_t boot[512];
    if (io_read(device_, nullptr, boot, 0, sizeof boot) != 0) {
        return false;
    }
    const uint64_t sectors = boot[at_sectors_per_cluster];
    const uint64_t cluster =
        number_at(boot, at_sector_size, 2) * (sectors < 0x80 ? sectors : minus_power(sectors));
    const uint64_t record = boot[at_record_size];
    record_size_ = record < 0x80 ? record * cluster : minus_power(record);
    if (!is_power_of_two(cluster) || cluster > largest_cluster || !is_power_of_two(record_size_) ||
        record_size_ < smallest_record || record_size_ > largest_record) {
        return false;
    }
    record_count_ = std::max(fewest_records, cluster / record_size_);
    const uint64_t clusters = device_.size / cluster;
    const uint64_t table = number_at(boot, at_table_cluster, 8);
    const uint64_t mirror = number_at(boot, at_mirror_cluster, 8);
    if (table >= clusters || mirror >= clusters) {
        return false;
    }
    table_.offset = table * cluster;
    mirror_.offset = mirror * cluster;
    const uint64_t size = record_count_ * record_size_;
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

bool mft_mirror::is_whole(const uint8_t* record, uint64_t number) const noexcept {
    const uint64_t sequence = number_at(record, at_sequence_offset, 2);
    const uint64_t count = number_at(record, at_sequence_count, 2);
    if (std::memcmp(record, "FILE", 4) != 0 || count != record_size_ / protected_sector + 1 ||
        sequence % 2 != 0 || sequence + count * 2 > protected_sector - 2) {
        return false;
    }
    if (sequence >= end_of_record_number && number_at(record, at_record_number, 4) != number) {
        return false;
    }
    for (uint64_t end = protected_sector; end <= record_size_; end += protected_sector) {
        if (std::memcmp(record + end - 2, record + sequence, 2) != 0) {
            return false;
        }
    }
    return true;
}

void mft_mirror::take_over(const copy& from, copy& to, uint64_t number) const noexcept {
    std::memcpy(to.records.get() + number * record_size_,
                from.records.get() + number * record_size_, record_size_);
    to.is_changed[number] = true;
}

bool mft_mirror::can_agree() noexcept {
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
        if (is_whole(original, number)) {
            take_over(table_, mirror_, number);
        } else if (is_whole(second, number)) {
            take_over(mirror_, table_, number);
        } else {
            return false;
        }
    }
    return differ;
}

void mft_mirror::overlay(const copy& side, uint8_t* buffer, uint64_t offset,
                         uint64_t length) const noexcept {
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
    if (error == 0) {
        self.overlay(self.table_, static_cast<uint8_t*>(buffer), offset, length);
        self.overlay(self.mirror_, static_cast<uint8_t*>(buffer), offset, length);
    }
    return error;
}

ntb_io mft_mirror::preview() noexcept {
    ntb_io view = device_;
    view.context = this;
    view.read = read_preview;
    view.write = forget_write;
    view.sync = nullptr;
    return view;
}

int32_t mft_mirror::write_changes(const copy& side) const noexcept {
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

int32_t mft_mirror::agree() noexcept {
    if (const int32_t error = write_changes(table_); error != 0) {
        return error;
    }
    if (const int32_t error = write_changes(mirror_); error != 0) {
        return error;
    }
    return device_.sync != nullptr ? device_.sync(device_.context) : 0;
}

} // namespace ntb
