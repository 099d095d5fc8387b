/// A file with all its records: attributes put together from their extents.
#pragma once

#include "NTFSBridge/ondisk/file_record.hpp"
#include "NTFSBridge/ondisk/mapping_pairs.hpp"
#include "platform/assert.hpp"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tavelin::check {

/// UTF-16LE bytes, as on disk.
using RawName = std::span<const std::uint8_t>;

struct Attribute {
    ntb::attribute_view first;  ///< the extent with VCN 0, which has the sizes
    std::uint64_t record = 0;   ///< that `first` is in
    std::vector<ntb::run> runs; ///< of all extents, in VCN order; clusters are on the volume
    std::uint64_t clusters = 0; ///< VCNs that the run lists cover
    bool isWhole = true;        ///< every run list was decoded to its end

    [[nodiscard]] std::uint32_t type() const noexcept { return first.type(); }
    [[nodiscard]] bool isResident() const noexcept { return first.is_resident(); }
    /// Bytes of the value.
    [[nodiscard]] std::uint64_t size() const noexcept {
        return isResident() ? first.value().size() : first.data_size();
    }
};

/// A name of ASCII letters against one on disk.
[[nodiscard]] bool isNamed(RawName name, std::string_view ascii) noexcept;
/// As UTF-8; what is no valid UTF-16 becomes U+FFFD.
[[nodiscard]] std::string toText(RawName name);

/// Owns the extension records; the base record stays where the caller has it.
struct File {
    std::uint64_t number = 0;
    ntb::record_view base{{}};
    std::vector<std::unique_ptr<std::uint8_t[]>> owned;
    std::vector<Attribute> attributes; ///< in order of type as far as the records have them so
    bool isWhole = true;               ///< all records and attributes could be read

    /// Null when there is none; names are ASCII.
    [[nodiscard]] const Attribute* find(std::uint32_t type, std::string_view name = {}) const;
    [[nodiscard]] std::uint64_t reference() const noexcept {
        TAVELIN_ASSERT(ntb::reference_record(number) == number);
        return ntb::make_reference(number, base.sequence());
    }
};

/// The value of a $FILE_NAME attribute or of the key of an index entry; checked by parseFileName.
struct FileName {
    std::span<const std::uint8_t> bytes;

    [[nodiscard]] std::uint64_t parent() const noexcept { return ntb::u64_at(bytes.data(), 0); }
    [[nodiscard]] std::uint64_t allocatedSize() const noexcept {
        return ntb::u64_at(bytes.data(), 0x28);
    }
    [[nodiscard]] std::uint64_t dataSize() const noexcept {
        return ntb::u64_at(bytes.data(), 0x30);
    }
    [[nodiscard]] std::uint32_t fileAttributes() const noexcept {
        return ntb::u32_at(bytes.data(), 0x38);
    }
    [[nodiscard]] std::uint8_t nameSpace() const noexcept { return bytes[0x41]; }
    [[nodiscard]] RawName name() const noexcept {
        TAVELIN_ASSERT(bytes.size() >= 0x42 + std::size_t{2} * bytes[0x40]);
        return bytes.subspan(0x42, std::size_t{2} * bytes[0x40]);
    }
    [[nodiscard]] bool isSameName(const FileName& other) const noexcept;
    /// Of directory, name and namespace.
    [[nodiscard]] std::uint64_t hash(std::uint64_t directory) const noexcept;
};

/// False when the bytes are no file name.
[[nodiscard]] bool parseFileName(std::span<const std::uint8_t> bytes, FileName& name) noexcept;

} // namespace tavelin::check
