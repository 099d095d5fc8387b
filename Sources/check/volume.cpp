#include "check/private/volume.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace tavelin::check {
namespace {

constexpr std::uint64_t kClustersMax = std::uint64_t{1} << 32; // of any system's volumes
constexpr std::uint64_t kRecordsMax = std::uint64_t{1} << 32;
constexpr int kPathDepthMax = 512;      // directories that a path is followed through
constexpr int kMftExtentRoundsMax = 64; // each finds records of $MFT's that the next one needs
constexpr std::uint64_t kBudgetBase = 64u << 20;
constexpr std::uint64_t kBudgetFactor = 8;

} // namespace

// ---- Finding $MFT ------------------------------------------------------------------------------

bool Volume::readBootSectorAt(std::uint64_t offset, ntb::boot_fault& fault) {
    std::array<std::uint8_t, ntb::boot_sector_bytes> bytes{};
    if (device.read(offset, bytes) != 0) {
        return false;
    }
    fault = ntb::parse_boot_sector(bytes, boot);
    return fault == ntb::boot_fault::none;
}

void Volume::readBootSector() {
    ntb::boot_fault fault = ntb::boot_fault::not_ntfs;
    if (!readBootSectorAt(0, fault)) {
        // The backup is in the device's last sector, whatever its size.
        bool hasBackup = false;
        for (const std::uint64_t size : {512u, 1024u, 2048u, 4096u}) {
            ntb::boot_fault ignored{};
            hasBackup = hasBackup ||
                        (device.size() > size && readBootSectorAt(device.size() - size, ignored));
        }
        if (!hasBackup) {
            throw Unreadable{
                fmt::format("no NTFS volume: the boot sector has not {}", ntb::describe(fault))};
        }
        add(FindingClass::bootSector, std::nullopt, "a boot sector",
            fmt::format("wrong: {}; the backup boot sector is used", ntb::describe(fault)));
    }
    // Refused as a whole. With a part of the volume missing nearly everything would be a finding,
    // and the cause would be lost among them.
    if (boot.clusters() > kClustersMax || boot.sectors > device.size() / boot.sector_size) {
        throw Unreadable{fmt::format("the volume has {} sectors, the device only {}: it was cut "
                                     "off, or the boot sector is damaged",
                                     boot.sectors, device.size() / boot.sector_size)};
    }
}

void Volume::loadMft() {
    mftRecord_.resize(boot.record_size);
    // A torn record is taken as well: the pass over the records reports it, and without it nothing
    // of the volume could be read.
    for (const std::uint64_t lcn : {boot.mft_lcn, boot.mftmirr_lcn}) {
        const bool isRead = device.read(lcn * boot.cluster_size, mftRecord_) == 0 &&
                            ntb::apply_fixups(mftRecord_) != ntb::fixup_result::malformed;
        const ntb::record_view record(mftRecord_);
        if (isRead && record.has_magic() && record.in_use() && record.base() == 0) {
            return;
        }
        if (lcn == boot.mft_lcn) {
            add(FindingClass::recordMagic, ntb::record_mft, "the first record of $MFT",
                "none; that of $MFTMirr is used", "/$MFT");
        }
    }
    throw Unreadable{"neither $MFT nor $MFTMirr begins with a file record"};
}

void Volume::open() {
    readBootSector();
    report.clusters = boot.clusters();
    // A sound volume stays far below. The budget is what a hostile one can cost, which names the
    // same clusters, blocks or records over and over.
    budget_ = kBudgetBase + kBudgetFactor * boot.sectors * boot.sector_size;
    loadMft();
    // The pass over the records assembles $MFT again, with its findings.
    const Reporter::Mute mute(reporter);
    // Extents of $MFT are in records that its earlier extents lead to.
    std::uint64_t clustersBefore = 0;
    for (int round = 0; round < kMftExtentRoundsMax; ++round) {
        File file;
        assemble(ntb::record_mft, mftRecord_, file);
        mft_ = std::move(file);
        mftData_ = mft_.find(ntb::at_data);
        if (mftData_ == nullptr || mftData_->isResident()) {
            throw Unreadable{"$MFT has no clusters"};
        }
        // Not more than the volume has room for, however often a run is named.
        const std::uint64_t room = boot.clusters() * boot.cluster_size / boot.record_size;
        recordCount_ = std::min({mftData_->first.data_size() / boot.record_size,
                                 mftData_->clusters * boot.cluster_size / boot.record_size, room,
                                 kRecordsMax});
        if (std::exchange(clustersBefore, mftData_->clusters) == mftData_->clusters) {
            break;
        }
    }
    TAVELIN_ASSERT(mftData_ != nullptr && !mftData_->isResident() && recordCount_ <= kRecordsMax);
}

// ---- Reading -----------------------------------------------------------------------------------

std::int32_t Volume::read(const Attribute& attribute, std::uint64_t offset,
                          std::span<std::uint8_t> into) {
    // Holes, gaps and all behind the initialised size read as zeros. memset() may not be given the
    // null pointer of an empty span.
    if (!into.empty()) {
        std::memset(into.data(), 0, into.size());
    }
    if (attribute.isResident()) {
        const auto value = attribute.first.value();
        if (offset < value.size()) {
            const auto rest = value.subspan(offset);
            std::copy_n(rest.begin(), std::min(rest.size(), into.size()), into.begin());
        }
        return 0;
    }
    // What lies in the clusters behind the initialised size is some deleted file's.
    const std::uint64_t written = attribute.first.initialized_size();
    std::uint64_t end = std::min(offset + into.size(), std::max(offset, written));
    auto run = std::upper_bound(
        attribute.runs.begin(), attribute.runs.end(), offset / boot.cluster_size,
        [](std::uint64_t vcn, const ntb::run& other) { return vcn < other.vcn + other.length; });
    for (; run != attribute.runs.end() && run->vcn * boot.cluster_size < end; ++run) {
        const std::uint64_t begin = run->vcn * boot.cluster_size;
        const std::uint64_t from = std::max(begin, offset);
        const std::uint64_t to = std::min(begin + run->length * boot.cluster_size, end);
        if (run->is_hole || from >= to) {
            continue;
        }
        TAVELIN_ASSERT(from >= offset && to - offset <= into.size());
        TAVELIN_ASSERT(run->lcn + run->length <= boot.clusters());
        const std::int32_t error = device.read(run->lcn * boot.cluster_size + (from - begin),
                                               into.subspan(from - offset, to - from));
        if (error != 0) {
            return error;
        }
    }
    return 0;
}

std::optional<std::vector<std::uint8_t>> Volume::readAll(const Attribute& attribute,
                                                         std::uint64_t most) {
    // The size is the disk's word: no more is allocated than the clusters hold.
    const std::uint64_t room =
        attribute.isResident() ? attribute.size() : attribute.clusters * boot.cluster_size;
    std::vector<std::uint8_t> bytes(std::min({attribute.size(), most, room}));
    TAVELIN_ASSERT(bytes.size() <= most);
    if (read(attribute, 0, bytes) != 0) {
        return std::nullopt;
    }
    return bytes;
}

std::int32_t Volume::readRawRecords(std::uint64_t first, std::span<std::uint8_t> into) {
    TAVELIN_ASSERT(mftData_ != nullptr && into.size() % boot.record_size == 0);
    return read(*mftData_, first * boot.record_size, into);
}

bool Volume::readRecord(std::uint64_t number, std::span<std::uint8_t> into) {
    if (mftData_ == nullptr || number >= recordCount_ || readRawRecords(number, into) != 0) {
        return false;
    }
    // A torn record is read all the same; the pass over the records has reported it.
    const ntb::record_view record(into);
    return record.has_magic() && record.in_use() &&
           ntb::apply_fixups(into) != ntb::fixup_result::malformed;
}

bool Volume::loadFile(std::uint64_t number, File& file) {
    file = File();
    auto bytes = std::make_unique<std::uint8_t[]>(boot.record_size);
    const std::span<std::uint8_t> record(bytes.get(), boot.record_size);
    if (!spend(boot.record_size) || !readRecord(number, record)) {
        return false;
    }
    // The views into the record stay good: the file owns the array, whose address does not change.
    file.owned.push_back(std::move(bytes));
    const Reporter::Mute mute(reporter);
    assemble(number, record, file);
    return true;
}

std::string Volume::pathOf(std::uint64_t record) {
    if (record == ntb::record_root) {
        return "/";
    }
    // By the names in the records, not by the indexes: a path in a finding must not depend on
    // another finding. The depth is bounded, as directories may be in each other.
    std::string path;
    for (int depth = 0; depth < kPathDepthMax && record != ntb::record_root; ++depth) {
        File file;
        FileName name;
        if (!loadFile(record, file)) {
            return "";
        }
        if (file.base.base() != 0) { // an extension record: the path is that of its file
            record = ntb::reference_record(file.base.base());
            continue;
        }
        // The long name where there is one, since people know the file by that.
        bool isFound = false;
        for (const Attribute& attribute : file.attributes) {
            if (attribute.type() == ntb::at_file_name && attribute.isResident() &&
                (!isFound || name.nameSpace() == ntb::namespace_dos)) {
                isFound = parseFileName(attribute.first.value(), name) || isFound;
            }
        }
        if (!isFound) {
            return "";
        }
        path.insert(0, "/" + toText(name.name()));
        record = ntb::reference_record(name.parent());
    }
    return record == ntb::record_root ? path : "";
}

// ---- Findings and progress ---------------------------------------------------------------------

void Volume::add(FindingClass kind, std::optional<std::uint64_t> record,
                 const std::string& expected, const std::string& found,
                 const std::optional<std::string>& path) {
    // Finding a path reads records: not for findings that are only counted.
    Finding finding{kind, record, {}, expected, found};
    if (reporter.wants(kind)) {
        finding.path = path ? *path : record ? pathOf(*record) : "";
    }
    reporter.add(finding);
}

void Volume::advance(std::uint64_t bytes) {
    progress_.done += bytes;
    progress_.total = std::max(progress_.total, progress_.done);
    if (options.onProgress && !options.onProgress(progress_)) {
        throw Stopped{};
    }
}

bool Volume::spend(std::uint64_t bytes) {
    // Once spent it stays spent, even for a smaller piece: what is left out must not depend on the
    // order of sizes.
    isExhausted_ = isExhausted_ || bytes > budget_;
    budget_ -= isExhausted_ ? 0 : bytes;
    return !isExhausted_;
}

} // namespace tavelin::check
