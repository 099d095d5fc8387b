#include "NTFSBridge/ondisk/file_record.hpp"

#include <algorithm>

namespace ntb {
namespace {

constexpr uint64_t resident_header = 0x18;     // bytes
constexpr uint64_t non_resident_header = 0x40; // bytes

bool is_inside(uint64_t offset, uint64_t length, uint64_t size) noexcept {
    return length <= size && offset <= size - length;
}

// Whether name and value, or name and run list, lie inside the attribute.
bool is_sound(std::span<const uint8_t> bytes) noexcept {
    if (bytes.size() < resident_header || bytes[0x08] > 1) {
        return false;
    }
    const uint8_t* const from = bytes.data();
    const bool is_resident = from[0x08] == 0;
    if (!is_resident && bytes.size() < non_resident_header) {
        return false;
    }
    // The offset of an absent name means nothing: some systems leave it 0, others let it point at
    // the value.
    const uint64_t name = uint64_t{2} * from[0x09];
    if (name != 0 && !is_inside(u16_at(from, 0x0a), name, bytes.size())) {
        return false;
    }
    // One byte of a run list is enough here: mapping_pairs_reader checks each pair against the end.
    return is_resident ? is_inside(u16_at(from, 0x14), u32_at(from, 0x10), bytes.size())
                       : is_inside(u16_at(from, 0x20), 1, bytes.size());
}

} // namespace

// A record that says that it uses more bytes than it has is read up to its real end.
attribute_reader::attribute_reader(const record_view& record) noexcept
    : used_(record.bytes().first(std::min<uint64_t>(record.used(), record.bytes().size()))),
      position_(record.attributes_offset()) {}

attribute_reader::result attribute_reader::next(attribute_view& attribute) noexcept {
    if (!is_inside(position_, 4, used_.size())) {
        return result::malformed;
    }
    const std::span<const uint8_t> rest = used_.subspan(position_);
    // The end marker is a type alone: no length has to follow it inside the used bytes.
    if (u32_at(rest.data(), 0) == at_end) {
        return result::end;
    }
    if (rest.size() < 8) {
        return result::malformed;
    }
    const uint64_t length = u32_at(rest.data(), 4);
    if (length % 8 != 0 || length > rest.size() || !is_sound(rest.first(length))) {
        return result::malformed;
    }
    // Every call advances, so that a walk over any bytes ends.
    TAVELIN_ASSERT(length >= resident_header);
    attribute = attribute_view(rest.first(length));
    position_ += length;
    TAVELIN_ASSERT(position_ <= used_.size());
    return result::attribute;
}

} // namespace ntb
