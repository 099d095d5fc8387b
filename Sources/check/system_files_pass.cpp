// The system files, as far as no other pass examines them.
#include "check/private/passes.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <numeric>

namespace tavelin::check {
namespace {

using enum FindingClass;

constexpr std::uint64_t kMirroredMin = 4;            // records, or as many as fill a cluster
constexpr std::uint64_t kDefinitionSize = 160;       // bytes of an entry of $AttrDef
constexpr std::uint64_t kDefinitionsMax = 64u << 10; // bytes
constexpr std::uint16_t kDirtyFlag = 0x0001;

// By record number; empty for those that only newer volumes have.
constexpr std::array<std::string_view, 11> kNames{"$MFT",     "$MFTMirr", "$LogFile", "$Volume",
                                                  "$AttrDef", ".",        "$Bitmap",  "$Boot",
                                                  "$BadClus", "",         "$UpCase"};

// The redo journal that a mount of ours has there while there is something to redo; its format is
// in docs/journal-format.md.
constexpr std::string_view kOurJournal = "TavelinJ";

bool startsWith(std::span<const std::uint8_t> bytes, std::string_view magic) {
    return bytes.size() >= magic.size() &&
           std::memcmp(bytes.data(), magic.data(), magic.size()) == 0;
}

bool isBlank(std::span<const std::uint8_t> bytes) {
    return std::ranges::all_of(bytes, [](std::uint8_t byte) { return byte == 0xff; });
}

class SystemFiles {
  public:
    explicit SystemFiles(Volume& volume) : volume_(volume) {}

    void run() {
        checkPresence();
        checkBootSectorCopy();
        checkMirror();
        withFile(ntb::record_volume, [&](const File& file) { checkVolumeInformation(file); });
        withFile(ntb::record_attrdef, [&](const File& file) { checkDefinitions(file); });
        withFile(ntb::record_logfile, [&](const File& file) { checkLogFile(file); });
        withFile(ntb::record_badclus, [&](const File& file) { checkBadClusters(file); });
        withFile(ntb::record_boot, [&](const File& file) {
            const Attribute* const data = file.find(ntb::at_data);
            const bool isAtStart = data != nullptr && !data->runs.empty() &&
                                   !data->runs[0].is_hole && data->runs[0].lcn == 0;
            if (!isAtStart) {
                add(systemFile, ntb::record_boot, "$Boot at cluster 0", "elsewhere");
            }
        });
    }

  private:
    template<typename Work>
    void withFile(std::uint64_t number, Work&& work) {
        File file;
        if (volume_.loadFile(number, file)) {
            work(file);
        }
    }

    void add(FindingClass kind, std::uint64_t record, const std::string& expected,
             const std::string& found) {
        volume_.add(kind, record, expected, found);
    }

    void checkPresence() {
        static_assert(kNames.size() == ntb::record_upcase + 1 && kNames[ntb::record_root] == ".");
        for (std::uint64_t number = 0; number < kNames.size(); ++number) {
            File file;
            const bool isThere = volume_.loadFile(number, file) && file.base.base() == 0;
            const Attribute* const attribute = isThere ? file.find(ntb::at_file_name) : nullptr;
            FileName name;
            const bool isNamedSo = attribute != nullptr && attribute->isResident() &&
                                   parseFileName(attribute->first.value(), name) &&
                                   isNamed(name.name(), kNames[number]);
            if (!isNamedSo && !kNames[number].empty()) {
                add(systemFile, number, std::string(kNames[number]),
                    isThere ? "another name" : "no file record");
            }
        }
    }

    void checkBootSectorCopy() {
        std::array<std::uint8_t, ntb::boot_sector_bytes> first{};
        std::array<std::uint8_t, ntb::boot_sector_bytes> copy{};
        const std::uint64_t end = volume_.boot.sectors * volume_.boot.sector_size;
        // The copy lies behind the volume, where an image may have been cut.
        if (volume_.device.read(0, first) == 0 && volume_.device.read(end, copy) == 0 &&
            first != copy) {
            volume_.add(bootSectorCopy, std::nullopt, "the same as the boot sector",
                        startsWith(std::span(copy).subspan(3), "NTFS") ? "another boot sector"
                                                                       : "no boot sector");
        }
    }

    void checkMirror() {
        const ntb::boot_sector& boot = volume_.boot;
        const std::uint64_t size = boot.record_size;
        const std::uint64_t count =
            std::min(std::max(kMirroredMin, boot.cluster_size / size), volume_.recordCount());
        withFile(ntb::record_mftmirr, [&](const File& file) {
            const Attribute* const data = file.find(ntb::at_data);
            if (data == nullptr || data->runs.empty() || data->runs[0].lcn != boot.mftmirr_lcn) {
                add(mftMirror, ntb::record_mftmirr, fmt::format("at cluster {}", boot.mftmirr_lcn),
                    "elsewhere");
            }
        });
        // Compared as they are on the device: a copy has the same fixups as its record.
        std::vector<std::uint8_t> original(size);
        std::vector<std::uint8_t> copy(size);
        for (std::uint64_t number = 0; number < count; ++number) {
            const std::uint64_t offset = boot.mftmirr_lcn * boot.cluster_size + number * size;
            if (volume_.readRawRecords(number, original) != 0 ||
                volume_.device.read(offset, copy) != 0 || original != copy) {
                volume_.add(mftMirror, number, "the same record in both", "different ones");
            }
        }
    }

    void checkVolumeInformation(const File& file) {
        const Attribute* const information = file.find(ntb::at_volume_information);
        if (information == nullptr || !information->isResident() || information->size() < 12) {
            add(volumeInformation, ntb::record_volume, "$VOLUME_INFORMATION", "none");
            return;
        }
        // 8 reserved bytes, the major and the minor version, the flags.
        const std::uint8_t* const value = information->first.value().data();
        if (value[8] < 1 || value[8] > 3) {
            add(volumeInformation, ntb::record_volume, "a version from 1 to 3",
                fmt::format("{}.{}", value[8], value[9]));
        }
        const std::uint16_t flags = ntb::u16_at(value, 0x0a);
        if ((flags & kDirtyFlag) != 0) {
            add(volumeDirty, ntb::record_volume, "not marked", "marked dirty");
        }
        if ((flags & ~kDirtyFlag) != 0) {
            add(volumeFlags, ntb::record_volume, "none", fmt::format("{:#x}", flags));
        }
        // $Secure and $Extend came with version 3, of Windows 2000.
        if (value[8] < 3) {
            return;
        }
        for (const std::uint64_t number : {ntb::record_secure, ntb::record_extend}) {
            File newer;
            if (!volume_.loadFile(number, newer)) {
                add(systemFile, number, number == ntb::record_secure ? "$Secure" : "$Extend",
                    "no file record");
            }
        }
    }

    void checkDefinitions(const File& file) {
        const Attribute* const data = file.find(ntb::at_data);
        const auto bytes = data == nullptr ? std::nullopt : volume_.readAll(*data, kDefinitionsMax);
        std::uint32_t last = 0;
        std::uint64_t at = 0;
        for (; bytes && at + kDefinitionSize <= bytes->size(); at += kDefinitionSize) {
            // An entry begins with its name, 64 units long. Types may be added by programs, so only
            // their order and the system's last one are examined.
            const std::uint32_t type = ntb::u32_at(bytes->data(), at + 0x80);
            if (type == 0) {
                break; // nothing follows
            }
            if (type <= last) {
                last = 0;
                break;
            }
            last = type;
        }
        if (last < ntb::at_logged_utility_stream) {
            add(attributeDefinitions, ntb::record_attrdef, "types ascending to 0x100",
                fmt::format("none from entry {} on", at / kDefinitionSize));
        }
    }

    // ---- $LogFile ------------------------------------------------------------------------------

    void checkLogFile(const File& file) {
        const Attribute* const data = file.find(ntb::at_data);
        if (data == nullptr || data->isResident()) {
            add(logFile, ntb::record_logfile, "a journal in clusters", "none");
            return;
        }
        // Windows looks for a restart page at 0, 512, 1024, 2048 and so on: the size of its pages
        // is known only from one.
        std::vector<std::uint8_t> page(4096);
        std::uint64_t offset = 0;
        for (; offset + page.size() <= data->size(); offset = offset == 0 ? 512 : offset * 2) {
            if (volume_.read(*data, offset, page) != 0) {
                add(logFile, ntb::record_logfile, "$LogFile", "a read error");
                return;
            }
            // An emptied journal is filled with 0xff. chkdsk leaves its own magic behind.
            const std::span<const std::uint8_t> magic(page.data(), 4);
            if (isBlank(magic)) {
                continue;
            }
            if (startsWith(magic, "RSTR")) {
                noteJournal(page);
            } else if (startsWith(page, kOurJournal)) {
                return; // whoever asked for the check has replayed it, or it is empty
            } else if (!startsWith(magic, "CHKD")) {
                add(logFile, ntb::record_logfile, "a restart page, or nothing",
                    fmt::format("neither at byte {}", offset));
            }
            return;
        }
    }

    void noteJournal(std::vector<std::uint8_t>& page) {
        const std::uint64_t area = ntb::u16_at(page.data(), 0x18);
        const std::uint16_t major = ntb::u16_at(page.data(), 0x1c);
        TAVELIN_ASSERT(page.size() >= 0x1e);
        if (area + 0x10 > page.size()) {
            add(logFile, ntb::record_logfile, "a restart area in the page",
                fmt::format("one at byte {}", area));
            return;
        }
        const bool isInUse = ntb::u16_at(page.data(), area + 0x0c) != 0xffff;
        const bool isClean = (ntb::u16_at(page.data(), area + 0x0e) & 2) != 0;
        // Windows 8 and later keep the journal in version 2 while they have the volume, and set it
        // back to version 1 when they give it up. A fast startup does not give it up.
        if (major >= 2) {
            volume_.report.notes.emplace_back(
                "Windows was shut down with fast startup and keeps changes in memory: what it "
                "knows of files may be newer than what is on the disk");
        } else if (isInUse && !isClean) {
            volume_.report.notes.emplace_back(
                "Windows was not shut down properly: its journal holds changes that are not "
                "carried out yet, and findings may be due to that");
        }
    }

    void checkBadClusters(const File& file) {
        // A sparse stream as long as the volume; its runs are the clusters that were found bad.
        const Attribute* const bad = file.find(ntb::at_data, "$Bad");
        if (bad == nullptr || bad->isResident() || bad->clusters < volume_.boot.clusters()) {
            add(badClusters, ntb::record_badclus,
                fmt::format("$Bad over {} clusters", volume_.boot.clusters()),
                bad == nullptr ? "no $Bad" : fmt::format("over {}", bad->clusters));
        }
    }

    Volume& volume_;
};

} // namespace

void checkSystemFiles(Volume& volume) {
    volume.beginPhase("system files");
    SystemFiles(volume).run();
}

// ---- $UpCase -----------------------------------------------------------------------------------

namespace {

constexpr std::size_t kUnits = 65536;

constexpr std::size_t kWordBytes = 8;
using Crc64Tables = std::array<std::array<std::uint64_t, 256>, kWordBytes>;

/// Table n holds the remainder of each byte with n zero bytes behind it.
constexpr Crc64Tables crc64Tables() {
    constexpr std::uint64_t kPolynomial = 0x9a6c9329ac4bc9b5; // reflected
    Crc64Tables tables{};
    for (std::size_t i = 0; i < 256; ++i) {
        std::uint64_t value = i;
        for (int bit = 0; bit < 8; ++bit) {
            value = (value & 1) != 0 ? value >> 1 ^ kPolynomial : value >> 1;
        }
        tables[0][i] = value;
    }
    for (std::size_t n = 1; n < kWordBytes; ++n) {
        for (std::size_t i = 0; i < 256; ++i) {
            const std::uint64_t value = tables[n - 1][i];
            tables[n][i] = value >> 8 ^ tables[0][value & 0xff];
        }
    }
    return tables;
}

/// The checksum that $UpCase keeps of itself in the stream $Info. Each check of a volume computes
/// it, the one before mounting too, so it takes eight bytes a step. The table is a whole number of
/// these.
std::uint64_t crc64(std::span<const std::uint8_t> bytes) {
    static constexpr Crc64Tables kTables = crc64Tables();
    TAVELIN_ASSERT(bytes.size() % kWordBytes == 0);
    std::uint64_t crc = ~std::uint64_t{0};
    for (std::size_t at = 0; at < bytes.size(); at += kWordBytes) {
        const std::uint64_t word = crc ^ ntb::u64_at(bytes.data(), at);
        crc = 0;
        for (std::size_t i = 0; i < kWordBytes; ++i) {
            crc ^= kTables[kWordBytes - 1 - i][word >> 8 * i & 0xff];
        }
    }
    return ~crc;
}

/// What is wrong with the table; empty when nothing is.
std::string faultOf(Volume& volume, const File& file, const std::vector<std::uint8_t>& bytes) {
    // The table maps UTF-16 units one to one, so it has one size.
    static_assert(kUnits == std::size_t{UINT16_MAX} + 1);
    if (bytes.size() != kUnits * 2) {
        return fmt::format("{} bytes", bytes.size());
    }
    // Versions of Windows differ in what letters they know. ASCII is the same in all.
    for (std::uint16_t unit = 0; unit < 0x80; ++unit) {
        const std::uint16_t upper =
            unit >= 'a' && unit <= 'z' ? static_cast<std::uint16_t>(unit - 32) : unit;
        if (ntb::u16_at(bytes.data(), std::uint64_t{2} * unit) != upper) {
            return fmt::format("{:#x} for {:#x}",
                               ntb::u16_at(bytes.data(), std::uint64_t{2} * unit), unit);
        }
    }
    // $Info came with Windows 8; older tables have no checksum, and some have 0 in its place.
    const Attribute* const own = file.find(ntb::at_data, "$Info");
    const auto value = own == nullptr ? std::nullopt : volume.readAll(*own, 16);
    const bool isWrong = value && value->size() == 16 && ntb::u64_at(value->data(), 8) != 0 &&
                         ntb::u64_at(value->data(), 8) != crc64(bytes);
    return isWrong ? "a table with another checksum" : "";
}

} // namespace

void loadUpcase(Volume& volume) {
    File file;
    const Attribute* const data =
        volume.loadFile(ntb::record_upcase, file) ? file.find(ntb::at_data) : nullptr;
    const auto bytes = data == nullptr ? std::nullopt : volume.readAll(*data, kUnits * 2 + 1);
    const std::string fault = bytes ? faultOf(volume, file, *bytes) : "none that can be read";
    if (!fault.empty()) {
        volume.add(upcaseTable, ntb::record_upcase, "a table of 65536 letters", fault);
    }
    volume.upcase.resize(kUnits);
    if (bytes && bytes->size() == kUnits * 2) {
        const std::uint8_t* unit = bytes->data();
        for (std::uint16_t& upper : volume.upcase) {
            upper = ntb::u16_at(unit, 0);
            unit += 2;
        }
    } else {
        // Without a table the ASCII letters still sort right. Other names may then be called out
        // of order, beside the finding that says why.
        std::iota(volume.upcase.begin(), volume.upcase.end(), std::uint16_t{0});
        std::iota(volume.upcase.begin() + 'a', volume.upcase.begin() + 'z' + 1, std::uint16_t{'A'});
    }
}

} // namespace tavelin::check
