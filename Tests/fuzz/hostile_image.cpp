#include "fuzz/hostile_image.hpp"

#include "core/journal/journal_record.hpp"
#include "crash/recording.hpp"
#include "support/sample_volume.hpp"

#include <algorithm>
#include <cstring>

namespace tavelin::test {

namespace {

constexpr std::size_t kSector = 512;
constexpr std::size_t kRecord = 1024;      // bytes of a file record, as mkntfs makes them
constexpr std::size_t kBlock = 4096;       // of an index, and a page of a journal
constexpr std::size_t kMirrored = 4;       // records
constexpr std::size_t kJournalHeader = 48; // bytes, before the list of pages
constexpr std::size_t kJournalEntry = 72;
constexpr std::size_t kAtChecksum = 8;
constexpr unsigned kKinds = 5;

Bytes smallVolume() {
    VolumeGeometry geometry;
    geometry.bytes = 2u << 20;
    geometry.clusterSize = 512;
    const SampleVolume volume(geometry);
    const std::string raw = readFile(volume.image());
    Bytes image(raw.size());
    std::memcpy(image.data(), raw.data(), raw.size());
    return image;
}

template<typename Number>
Number at(const Bytes& image, std::size_t where) {
    Number number = 0;
    std::memcpy(&number, image.data() + where, sizeof number);
    return number;
}

std::size_t clusterSize(const Bytes& boot) {
    return at<std::uint16_t>(boot, 0x0b) * std::size_t{at<std::uint8_t>(boot, 0x0d)};
}

// Takes the update sequence out of a block, or puts it in; sequences that do not fit are left.
class Fixups {
  public:
    Fixups(Bytes& image, std::size_t block, std::size_t size) : image_(image), block_(block) {
        const std::size_t offset = at<std::uint16_t>(image, block + 4);
        if (at<std::uint16_t>(image, block + 6) != size / kSector + 1 ||
            offset + 2 * (size / kSector + 1) > kSector) {
            return;
        }
        count_ = size / kSector;
        sequence_ = block + offset;
        for (std::size_t i = 0; i < count_; i++) {
            std::memcpy(endOf(i), &image[sequence_ + 2 * (i + 1)], 2);
        }
    }
    ~Fixups() {
        for (std::size_t i = 0; i < count_; i++) {
            std::memcpy(&image_[sequence_ + 2 * (i + 1)], endOf(i), 2);
            std::memcpy(endOf(i), &image_[sequence_], 2);
        }
    }
    Fixups(const Fixups&) = delete;
    Fixups& operator=(const Fixups&) = delete;

  private:
    std::byte* endOf(std::size_t sector) { return &image_[block_ + (sector + 1) * kSector - 2]; }

    Bytes& image_;
    const std::size_t block_;
    std::size_t sequence_ = 0;
    std::size_t count_ = 0;
};

std::vector<std::size_t> blocksOf(const Bytes& image, std::string_view magic) {
    std::vector<std::size_t> found;
    for (std::size_t block = 0; block + kBlock <= image.size(); block += kSector) {
        if (std::memcmp(&image[block], magic.data(), magic.size()) == 0) {
            found.push_back(block);
        }
    }
    return found;
}

// What Windows writes for a symbolic link, relative or not, and nobody else's writing reaches.
Bytes windowsLink(std::string_view target, bool isRelative) {
    Bytes data(8 + 12 + 2 * target.size());
    const auto put = [&data](std::size_t where, std::uint32_t value) {
        std::memcpy(&data[where], &value, where == 0 || where == 16 ? 4 : 2);
    };
    put(0, 0xA000000C);
    put(4, static_cast<std::uint32_t>(data.size() - 8));
    for (const std::size_t length : {10, 14}) {
        put(length, static_cast<std::uint32_t>(2 * target.size()));
    }
    put(16, isRelative ? 1 : 0);
    for (std::size_t i = 0; i < target.size(); i++) {
        data[20 + 2 * i] = static_cast<std::byte>(target[i]);
    }
    return data;
}

// Turns the small files of a volume into links.
Bytes volumeOfLinks() {
    constexpr std::size_t kFirst = 24; // records before it are the volume's own
    constexpr std::size_t kRecords = 128;
    Bytes image = preparedVolume();
    const std::size_t table = at<std::uint64_t>(image, 0x30) * clusterSize(image);
    for (std::size_t number = kFirst; number < kRecords; number++) {
        const std::size_t record = table + number * kRecord;
        const Fixups none(image, record, kRecord);
        const Bytes link =
            windowsLink(number % 2 == 0 ? "..\\3" : "\\??\\C:\\stable", number % 2 == 0);
        std::size_t attribute = record + at<std::uint16_t>(image, record + 0x14);
        const std::size_t information = attribute;
        while (at<std::uint32_t>(image, attribute) < 0x80) {
            attribute += at<std::uint32_t>(image, attribute + 4);
        }
        const std::size_t value = attribute + at<std::uint16_t>(image, attribute + 0x14);
        if (at<std::uint32_t>(image, attribute) == 0x80 && image[attribute + 8] == std::byte{0} &&
            at<std::uint32_t>(image, attribute + 0x10) > link.size()) {
            image[attribute] = std::byte{0xc0};
            image[attribute + 0x10] = static_cast<std::byte>(link.size());
            image[attribute + 0x11] = std::byte{0};
            std::copy(link.begin(), link.end(), &image[value]);
            image[information + 0x18 + 0x21] |= std::byte{4}; // "is a reparse point"
        }
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

void changeBytes(Bytes& image, std::size_t begin, std::size_t size, const Change& change) {
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

JournalRecord journalRecord(const Bytes& image, std::size_t at) {
    return JournalRecord::parse(&image[at]).value_or(JournalRecord{});
}

// Gives a journal's record the checksum that its header should have; one that leaves the disk has
// none.
void seal(Bytes& image, std::size_t at) {
    const std::size_t pages = JournalRecord::headerPages(journalRecord(image, at).pages);
    if (pages > (image.size() - at) / kBlock) {
        return;
    }
    std::memset(&image[at + kAtChecksum], 0, sizeof(std::uint32_t));
    const std::uint32_t sum = crc32c(&image[at], pages * kBlock);
    std::memcpy(&image[at + kAtChecksum], &sum, sizeof sum);
}

// `seed` is the image before all changes: what its boot sector says still holds.
void apply(Bytes& image, const Bytes& seed, const Change& change) {
    const std::size_t cluster = clusterSize(seed);
    switch (change.kind % kKinds) {
    case 0: {
        const std::size_t table = at<std::uint64_t>(seed, 0x30) * cluster;
        const std::size_t mirror = at<std::uint64_t>(seed, 0x38) * cluster;
        const std::size_t record = table + change.number % 128 * kRecord;
        {
            const Fixups none(image, record, kRecord);
            changeBytes(image, record, kRecord, change);
        }
        if (change.number % 128 < kMirrored) {
            std::copy_n(image.begin() + static_cast<std::ptrdiff_t>(record), kRecord,
                        image.begin() + static_cast<std::ptrdiff_t>(mirror + record - table));
        }
        break;
    }
    case 1: {
        const auto blocks = blocksOf(image, "INDX");
        if (!blocks.empty()) {
            const std::size_t block = blocks[change.number % blocks.size()];
            const Fixups none(image, block, kBlock);
            changeBytes(image, block, kBlock, change);
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
            const std::size_t list =
                kJournalEntry * std::size_t{journalRecord(image, record).pages};
            changeBytes(image, record, std::min(kJournalHeader + list, kBlock), change);
            seal(image, record);
        }
        break;
    }
    }
}

} // namespace

const std::vector<Bytes>& seedVolumes() {
    static const std::vector<Bytes> volumes{preparedVolume(), smallVolume(), volumeOfLinks(),
                                            pendingVolume()};
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

Bytes damagedVolume(InputReader& input) {
    const auto& seeds = seedVolumes();
    const Bytes& seed = seeds[input.byte() % seeds.size()];
    Bytes image = seed;
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
        apply(image, seed, change);
    }
    return image;
}

} // namespace tavelin::test
