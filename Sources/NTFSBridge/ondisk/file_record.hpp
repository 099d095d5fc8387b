// A file record and its attributes, read where they lie.
//
// Views own nothing: they are valid as long as the record's bytes are. Everything in a record is
// the disk's word; what a view offers has been checked to lie inside the record.
#pragma once

#include "NTFSBridge/ondisk/layout.hpp"
#include "NTFSBridge/ondisk/little_endian.hpp"
#include "platform/assert.hpp"

#include <cstdint>
#include <cstring>
#include <span>

namespace ntb {

// The header of a record whose fixups have been applied. `bytes` is a whole record.
class record_view {
  public:
    // No copy is made. At least the 48 bytes of the header must be there.
    explicit record_view(std::span<const uint8_t> bytes) noexcept : bytes_(bytes) {}

    [[nodiscard]] std::span<const uint8_t> bytes() const noexcept { return bytes_; }
    // A record in use begins with "FILE". chkdsk marks one that it could not read with "BAAD".
    [[nodiscard]] bool has_magic() const noexcept { return std::memcmp(at(0), "FILE", 4) == 0; }
    // Where the update sequence array is, in bytes of the record; see fixups.hpp.
    [[nodiscard]] uint16_t usa_offset() const noexcept { return u16_at(at(0), 0x04); }
    // The log sequence number of the last change that Windows recorded in its journal.
    [[nodiscard]] uint64_t lsn() const noexcept { return u64_at(at(0), 0x08); }
    // Raised each time the record is freed, so that a reference to a former owner is recognised.
    [[nodiscard]] uint16_t sequence() const noexcept { return u16_at(at(0), 0x10); }
    // Names of the file, the DOS name counted as one of its own.
    [[nodiscard]] uint16_t links() const noexcept { return u16_at(at(0), 0x12); }
    // Where the first attribute is, in bytes of the record. Not checked here; attribute_reader
    // does.
    [[nodiscard]] uint16_t attributes_offset() const noexcept { return u16_at(at(0), 0x14); }
    [[nodiscard]] uint16_t flags() const noexcept { return u16_at(at(0), 0x16); }
    [[nodiscard]] bool in_use() const noexcept { return (flags() & record_in_use) != 0; }
    // Bytes in use, the end marker included, and bytes that the record has. The disk's word,
    // unchecked.
    [[nodiscard]] uint32_t used() const noexcept { return u32_at(at(0), 0x18); }
    [[nodiscard]] uint32_t allocated() const noexcept { return u32_at(at(0), 0x1c); }
    // 0 in a base record.
    // A reference to the record that this one continues.
    [[nodiscard]] uint64_t base() const noexcept { return u64_at(at(0), 0x20); }
    // The instance number that the next attribute gets; attribute lists refer to attributes by it.
    [[nodiscard]] uint16_t next_instance() const noexcept { return u16_at(at(0), 0x28); }
    // Only where the update sequence does not lie over it, as in volumes before Windows XP.
    [[nodiscard]] bool has_number() const noexcept { return usa_offset() >= 0x30; }
    // The record's own number, by which a record in the wrong place is recognised.
    [[nodiscard]] uint32_t number() const noexcept { return u32_at(at(0), 0x2c); }

  private:
    // The fixed part of a record's header, before the update sequence array.
    static constexpr uint64_t header_bytes = 0x30;

    [[nodiscard]] const uint8_t* at(uint64_t offset) const noexcept {
        TAVELIN_ASSERT(bytes_.size() >= header_bytes && offset < header_bytes);
        return bytes_.data() + offset;
    }

    std::span<const uint8_t> bytes_;
};

// One attribute, or one extent of it. Made by attribute_reader only.
class attribute_view {
  public:
    // An empty view, for attribute_reader to fill in. Nothing may be asked of it before that.
    attribute_view() = default;
    explicit attribute_view(std::span<const uint8_t> bytes) noexcept : bytes_(bytes) {}

    [[nodiscard]] std::span<const uint8_t> bytes() const noexcept { return bytes_; }
    // An attribute_type, or a number that no version of NTFS has: the disk's word.
    [[nodiscard]] uint32_t type() const noexcept { return u32_at(at(0), 0x00); }
    // Resident: the value is inside the record. Otherwise it is in clusters that the mapping pairs
    // list.
    [[nodiscard]] bool is_resident() const noexcept { return bytes_[0x08] == 0; }
    [[nodiscard]] uint8_t name_length() const noexcept { return bytes_[0x09]; } // UTF-16 units
    [[nodiscard]] std::span<const uint8_t> name() const noexcept {              // UTF-16LE
        return bytes_.subspan(name_length() == 0 ? 0 : u16_at(at(0), 0x0a),
                              size_t{2} * name_length());
    }
    [[nodiscard]] uint16_t flags() const noexcept { return u16_at(at(0), 0x0c); }
    [[nodiscard]] bool is_compressed() const noexcept {
        return (flags() & attribute_compression_mask) != 0;
    }
    [[nodiscard]] bool is_sparse() const noexcept { return (flags() & attribute_sparse) != 0; }
    // Unique among the attributes of one file record.
    [[nodiscard]] uint16_t instance() const noexcept { return u16_at(at(0), 0x0e); }

    // Of resident attributes.
    [[nodiscard]] std::span<const uint8_t> value() const noexcept {
        TAVELIN_ASSERT(is_resident());
        return bytes_.subspan(u16_at(at(0), 0x14), u32_at(at(0), 0x10));
    }
    // Whether the value is also a key of an index, as a file name is of its directory.
    [[nodiscard]] bool is_indexed() const noexcept { return (bytes_[0x16] & 1) != 0; }

    // Of the others. Sizes are bytes, and valid where the lowest VCN is 0.
    // The first and the last VCN that this extent of the attribute describes. An attribute with a
    // long run list has several extents, in records of their own.
    [[nodiscard]] uint64_t lowest_vcn() const noexcept { return u64_at(non_resident(), 0x10); }
    [[nodiscard]] uint64_t highest_vcn() const noexcept { return u64_at(non_resident(), 0x18); }
    // The clusters that are compressed together, as an exponent of 2.
    [[nodiscard]] uint8_t compression_unit() const noexcept { // power of two
        return non_resident()[0x22];
    }
    // Bytes of the clusters that the attribute spans, holes included.
    [[nodiscard]] uint64_t allocated_size() const noexcept { return u64_at(non_resident(), 0x28); }
    // Bytes of the value as programs see it.
    [[nodiscard]] uint64_t data_size() const noexcept { return u64_at(non_resident(), 0x30); }
    // Bytes from the start that were ever written. What follows reads as zeros whatever the
    // clusters hold.
    [[nodiscard]] uint64_t initialized_size() const noexcept {
        return u64_at(non_resident(), 0x38);
    }
    // Bytes in clusters, of attributes with holes.
    [[nodiscard]] bool has_total_allocated() const noexcept {
        return lowest_vcn() == 0 && (is_compressed() || is_sparse()) && bytes_.size() >= 0x48;
    }
    [[nodiscard]] uint64_t total_allocated() const noexcept {
        TAVELIN_ASSERT(has_total_allocated());
        return u64_at(non_resident(), 0x40);
    }
    // The encoded run list, up to the end of the attribute; see mapping_pairs.hpp.
    [[nodiscard]] std::span<const uint8_t> mapping_pairs() const noexcept {
        return bytes_.subspan(u16_at(non_resident(), 0x20));
    }

  private:
    // The header of an attribute with clusters: in a resident one these bytes are its value.
    [[nodiscard]] const uint8_t* non_resident() const noexcept {
        TAVELIN_ASSERT(!is_resident());
        return bytes_.data();
    }
    [[nodiscard]] const uint8_t* at(uint64_t offset) const noexcept {
        return bytes_.data() + offset;
    }

    std::span<const uint8_t> bytes_;
};

// Walks the attributes of a record in their order.
class attribute_reader {
  public:
    enum class result {
        attribute,
        end,       // the end marker, inside the used bytes
        malformed, // what follows cannot be read: lengths that do not fit, or no end marker
    };

    // The record's bytes must outlive the reader and the views that it makes.
    explicit attribute_reader(const record_view& record) noexcept;

    // Fills `attribute` in for result::attribute.
    [[nodiscard]] result next(attribute_view& attribute) noexcept;
    // Where the next attribute begins, or after the end the end marker, in bytes of the record.
    [[nodiscard]] uint64_t position() const noexcept { return position_; }

  private:
    std::span<const uint8_t> used_;
    uint64_t position_ = 0;
};

} // namespace ntb
