// Reads the content of files that Windows compressed as a whole.
#include "check/private/system_compression.hpp"

#include "compression/chunk_reader.hpp"

#include <fmt/format.h>

#include <algorithm>

namespace tavelin::check {
namespace {

using compression::ChunkReader;
using compression::Format;

constexpr std::uint32_t kWofTag = 0x80000017; // [MS-FSCC] 2.1.2.1, IO_REPARSE_TAG_WOF

/// The value of the reparse point, little-endian throughout: the tag and the length of the rest,
/// then WOF_EXTERNAL_INFO and FILE_PROVIDER_EXTERNAL_INFO_V1 as Windows' headers have them.
struct WofLayout {
    static constexpr std::size_t tag = 0;
    static constexpr std::size_t version = 8;          // 1
    static constexpr std::size_t provider = 12;        // 2: the file itself
    static constexpr std::size_t providerVersion = 16; // 1
    static constexpr std::size_t format = 20;          // a compression::Format
    static constexpr std::size_t bytes = 24;
};

std::optional<Format> formatOf(Volume& volume, const File& file) {
    const Attribute* const point = file.find(ntb::at_reparse_point);
    if (point == nullptr) {
        return std::nullopt;
    }
    const auto value = volume.readAll(*point, WofLayout::bytes);
    if (!value || value->size() < WofLayout::bytes) {
        return std::nullopt;
    }
    const std::uint8_t* const bytes = value->data();
    const auto format = static_cast<Format>(ntb::u32_at(bytes, WofLayout::format));
    const bool isOurs = ntb::u32_at(bytes, WofLayout::tag) == kWofTag &&
                        ntb::u32_at(bytes, WofLayout::version) == 1 &&
                        ntb::u32_at(bytes, WofLayout::provider) == 2 &&
                        ntb::u32_at(bytes, WofLayout::providerVersion) == 1 &&
                        compression::chunkSize(format) != 0;
    return isOurs ? std::optional(format) : std::nullopt;
}

} // namespace

bool readSystemCompressed(Volume& volume, const File& file) {
    const std::optional<Format> format = formatOf(volume, file);
    const Attribute* const data = file.find(ntb::at_data);
    if (!format || data == nullptr) {
        return false;
    }
    const auto reportDamage = [&](std::uint64_t offset) {
        volume.add(FindingClass::compressedData, file.number, "data that decompresses",
                   fmt::format("data that does not, from byte {} on", offset));
    };
    const Attribute* const packed = file.find(ntb::at_data, "WofCompressedData");
    const auto reader =
        packed == nullptr ? nullptr : ChunkReader::create(*format, data->size(), packed->size());
    if (!reader) {
        reportDamage(0);
        return true;
    }
    int readError = 0;
    const auto source = [&](std::uint64_t offset, std::span<std::uint8_t> into) {
        readError = volume.read(*packed, offset, into);
        volume.advance(into.size());
        return readError;
    };
    std::vector<std::uint8_t> chunk(compression::chunkSize(*format));
    for (std::uint64_t at = 0; at < reader->fileSize(); at += chunk.size()) {
        // A small stream may claim to hold a file of any size.
        if (!volume.spend(chunk.size())) {
            break;
        }
        const std::uint64_t wanted = std::min<std::uint64_t>(chunk.size(), reader->fileSize() - at);
        std::size_t count = 0;
        if (reader->read(source, at, std::span(chunk).first(wanted), count) != 0) {
            if (readError != 0) {
                volume.add(FindingClass::dataUnreadable, file.number, "data",
                           fmt::format("a read error in the compressed stream, from byte {} of "
                                       "the file on",
                                       at + count));
            } else {
                reportDamage(at + count);
            }
            break; // the first one of a stream says it all
        }
    }
    return true;
}

} // namespace tavelin::check
