#include "fuzz/hostile_image.hpp"

#include "NTFSBridge/ondisk/boot_sector.hpp"
#include "NTFSBridge/ondisk/file_record.hpp"
#include "NTFSBridge/ondisk/fixups.hpp"
#include "core/journal/journal_record.hpp"
#include "lab/recording.hpp"
#include "support/reparse_items.hpp"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace tavelin::test {

namespace {

using Span = std::span<std::byte>;
using ConstSpan = std::span<const std::byte>;

constexpr std::size_t kSector = 512;
constexpr std::size_t kRecord = 1024;      // bytes of a file record, as mkntfs makes them
constexpr std::size_t kBlock = 4096;       // of an index, and a page of a journal
constexpr std::size_t kMirrored = 4;       // records
constexpr std::size_t kJournalHeader = 48; // bytes, before the list of pages
constexpr std::size_t kJournalEntry = 72;
constexpr std::size_t kAtChecksum = 8;
constexpr unsigned kKinds = 5;

std::span<std::uint8_t> block(Span image, std::size_t offset, std::size_t size) {
    return {reinterpret_cast<std::uint8_t*>(&image[offset]), size};
}

ntb::boot_sector bootOf(ConstSpan image) {
    ntb::boot_sector boot;
    const auto* const sector = reinterpret_cast<const std::uint8_t*>(image.data());
    if (ntb::parse_boot_sector(std::span<const std::uint8_t, kSector>(sector, kSector), boot) !=
        ntb::boot_fault::none) {
        throw std::runtime_error("a seed without a boot sector");
    }
    return boot;
}

// Runs `change` on a block without its update sequence; one that does not fit stays.
template<typename Work>
void withoutFixups(std::span<std::uint8_t> bytes, Work&& change) {
    const bool hadFixups = ntb::apply_fixups(bytes) == ntb::fixup_result::good;
    change();
    if (hadFixups) {
        ntb::insert_fixups(bytes);
    }
}

std::vector<std::size_t> blocksOf(ConstSpan image, std::string_view magic) {
    std::vector<std::size_t> found;
    for (std::size_t block = 0; block + kBlock <= image.size(); block += kSector) {
        if (std::memcmp(&image[block], magic.data(), magic.size()) == 0) {
            found.push_back(block);
        }
    }
    return found;
}

// Turns a record's unnamed data into a link, where it has as many bytes.
void makeLink(std::span<std::uint8_t> record, const std::string& link) {
    ntb::attribute_reader reader{ntb::record_view(record)};
    ntb::attribute_view data;
    std::uint8_t* information = nullptr; // the first attribute
    while (reader.next(data) == ntb::attribute_reader::result::attribute &&
           data.type() != ntb::at_data) {
        const auto offset = data.bytes().data() - record.data();
        information = information == nullptr ? record.data() + offset : information;
    }
    if (information == nullptr || data.type() != ntb::at_data || !data.is_resident() ||
        data.value().size() <= link.size()) {
        return;
    }
    std::uint8_t* const attribute = record.data() + (data.bytes().data() - record.data());
    std::ranges::copy(link, record.begin() + (data.value().data() - record.data()));
    ntb::put_at(attribute, 0x00, 4, ntb::at_reparse_point);
    ntb::put_at(attribute, 0x10, 4, link.size());
    information[0x18 + 0x21] |= 4; // "is a reparse point"
}

// Turns the small files of a volume into links.
Bytes volumeOfLinks() {
    constexpr std::size_t kRecords = 128;
    const std::string links[] = {symlinkData("..\\3", true),
                                 symlinkData("\\??\\C:\\stable", false)};
    Bytes image = preparedVolume();
    const ntb::boot_sector boot = bootOf(image);
    for (std::size_t number = ntb::first_user_record; number < kRecords; number++) {
        const auto record =
            block(image, boot.mft_lcn * boot.cluster_size + number * kRecord, kRecord);
        withoutFixups(record, [&] { makeLink(record, links[number % 2]); });
    }
    return image;
}

struct Change {
    std::uint8_t kind;
    std::uint8_t number;
    std::uint16_t place;
    std::uint8_t how;
    std::uint8_t value;
};

void changeBytes(Span image, std::size_t begin, std::size_t size, const Change& change) {
    constexpr std::size_t kWidths[] = {1, 2, 4, 8};
    const std::size_t width = kWidths[change.how / 4 % 4];
    const std::size_t where = begin + change.place % (size - width + 1);
    for (std::size_t i = 0; i < width; i++) {
        std::byte& byte = image[where + i];
        const auto value = static_cast<std::byte>(change.value);
        switch (change.how % 4) {
        case 0: // a small number
            byte = i == 0 ? value : std::byte{0};
            break;
        case 1: // a large one
            byte = i + 1 == width ? value : std::byte{0xff};
            break;
        case 2:
            byte ^= i == 0 ? value : std::byte{0};
            break;
        default: // a little more or less
            byte = i == 0 ? static_cast<std::byte>(std::to_integer<int>(byte) + change.value - 128)
                          : byte;
            break;
        }
    }
}

JournalRecord journalRecord(ConstSpan image, std::size_t at) {
    return JournalRecord::parse(&image[at]).value_or(JournalRecord{});
}

// Gives a journal's record the checksum that its header should have; one that leaves the disk has
// none.
void seal(Span image, std::size_t at) {
    const JournalRecord record = journalRecord(image, at);
    const std::uint64_t covered =
        JournalRecord::headerBytes(std::uint64_t{record.pages} + record.named);
    if (covered > image.size() - at) {
        return;
    }
    std::memset(&image[at + kAtChecksum], 0, sizeof(std::uint32_t));
    const std::uint32_t sum = crc32c(&image[at], covered);
    std::memcpy(&image[at + kAtChecksum], &sum, sizeof sum);
}

// `seed` is the image before all changes: what its boot sector says still holds.
void apply(Span image, ConstSpan seed, const Change& change) {
    switch (change.kind % kKinds) {
    case 0: {
        const ntb::boot_sector boot = bootOf(seed);
        const std::size_t number = change.number % 128;
        const std::size_t record = boot.mft_lcn * boot.cluster_size + number * kRecord;
        withoutFixups(block(image, record, kRecord),
                      [&] { changeBytes(image, record, kRecord, change); });
        if (number < kMirrored) {
            const std::size_t mirror = boot.mftmirr_lcn * boot.cluster_size + number * kRecord;
            std::ranges::copy(block(image, record, kRecord), block(image, mirror, kRecord).begin());
        }
        break;
    }
    case 1: {
        const auto blocks = blocksOf(image, "INDX");
        if (!blocks.empty()) {
            const std::size_t at = blocks[change.number % blocks.size()];
            withoutFixups(block(image, at, kBlock),
                          [&] { changeBytes(image, at, kBlock, change); });
        }
        break;
    }
    case 2:
        changeBytes(image, 0, kSector, change);
        break;
    case 3:
        changeBytes(image, change.number * 8192u % (image.size() - 65536), 65536, change);
        break;
    default: {
        const auto records = blocksOf(image, "TavelinJ");
        if (!records.empty()) {
            const std::size_t record = records[change.number % records.size()];
            const JournalRecord found = journalRecord(image, record);
            const std::size_t list = kJournalEntry * (std::size_t{found.pages} + found.named);
            changeBytes(image, record, std::min(kJournalHeader + list, kBlock), change);
            seal(image, record);
        }
        break;
    }
    }
}

} // namespace

const std::array<SharedImage, 4>& seedVolumes() {
    static const std::array<SharedImage, 4> volumes{
        SharedImage(preparedVolume()),
        SharedImage(loadImage(SampleVolume({.bytes = 2u << 20, .clusterSize = 512}).image())),
        SharedImage(volumeOfLinks()), SharedImage(pendingVolume())};
    return volumes;
}

std::uint8_t InputReader::byte() {
    if (rest_.empty()) {
        return 0;
    }
    const std::uint8_t first = rest_.front();
    rest_ = rest_.subspan(1);
    return first;
}

MappedImage damagedVolume(InputReader& input) {
    const auto& seeds = seedVolumes();
    const SharedImage& seed = seeds[input.byte() % seeds.size()];
    MappedImage image = seed.copy();
    const std::uint8_t count = input.byte() % 32;
    std::vector<Change> changes;
    for (std::uint8_t i = 0; i < count && !input.isAtEnd(); i++) {
        Change change{};
        change.kind = input.byte();
        change.number = input.byte();
        change.place = input.byte();
        change.place = static_cast<std::uint16_t>(change.place | input.byte() << 8);
        change.how = input.byte();
        change.value = input.byte();
        changes.push_back(change);
    }
    for (const Change& change : changes) {
        apply(image, seed.content(), change);
    }
    return image;
}

} // namespace tavelin::test
