/// What all passes of a check share: the device, what is known of the volume, and the findings.
#pragma once

#include "NTFSBridge/ondisk/boot_sector.hpp"
#include "NTFSBridge/ondisk/fixups.hpp"
#include "check/private/cluster_map.hpp"
#include "check/private/device_reader.hpp"
#include "check/private/file.hpp"
#include "check/private/record_table.hpp"
#include "check/private/reporter.hpp"
#include "platform/assert.hpp"

#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace tavelin::check {

/// Thrown through the passes when the caller wants no more.
struct Stopped {};
/// Thrown where nothing of the volume can be read.
struct Unreadable {
    std::string reason;
};

class Volume {
  public:
    Volume(BlockDevice& onDevice, const Options& with, Report& into)
        : device(onDevice), reporter(with, into), options(with), report(into) {}

    // ---- Reading -------------------------------------------------------------------------------

    /// Finds $MFT. Throws Unreadable.
    void open();
    /// Bytes of an attribute's value; zeros where nothing was written. 0 or the host's errno.
    [[nodiscard]] std::int32_t read(const Attribute& attribute, std::uint64_t offset,
                                    std::span<std::uint8_t> into);
    /// The value as far as it is at most `most` bytes; nothing when it cannot be read.
    [[nodiscard]] std::optional<std::vector<std::uint8_t>> readAll(const Attribute& attribute,
                                                                   std::uint64_t most);
    /// A record with its fixups applied into a buffer of record size. False when it cannot be read,
    /// is none, or is not in use.
    [[nodiscard]] bool readRecord(std::uint64_t number, std::span<std::uint8_t> into);
    /// A file by its base record, whose bytes the file owns. Reports nothing.
    [[nodiscard]] bool loadFile(std::uint64_t number, File& file);
    /// The same from a base record that has been read, with findings. Defined in file_loader.cpp.
    void assemble(std::uint64_t number, std::span<const std::uint8_t> base, File& file);

    /// Records as they are on the device.
    [[nodiscard]] std::int32_t readRawRecords(std::uint64_t first, std::span<std::uint8_t> into);
    [[nodiscard]] const File& mft() const noexcept { return mft_; }
    [[nodiscard]] std::uint64_t recordCount() const noexcept { return recordCount_; }
    /// "/a/b"; "" when the way to the root cannot be found.
    [[nodiscard]] std::string pathOf(std::uint64_t record);

    // ---- Findings ------------------------------------------------------------------------------

    /// `path` is looked up from the record unless it is given.
    void add(FindingClass kind, std::optional<std::uint64_t> record, const std::string& expected,
             const std::string& found, const std::optional<std::string>& path = std::nullopt);

    // ---- Progress ------------------------------------------------------------------------------

    void beginPhase(std::string_view phase) { progress_.phase = phase; }
    void expect(std::uint64_t bytes) noexcept { progress_.total += bytes; }
    /// Throws Stopped.
    void advance(std::uint64_t bytes);

    /// Bounds what a hostile volume has read again and again. False when all is spent.
    [[nodiscard]] bool spend(std::uint64_t bytes);
    [[nodiscard]] bool isExhausted() const noexcept { return isExhausted_; }

    DeviceReader device;
    Reporter reporter;
    const Options& options;
    Report& report;

    ntb::boot_sector boot;
    RecordTable table;
    ClusterMap clusters;
    std::vector<ClusterRange> conflicts;  ///< clusters that were marked before
    std::vector<ClusterRange> markedFree; ///< clusters of files that $Bitmap has as free
    std::vector<std::uint16_t> upcase;    ///< 65536 units
    std::unordered_map<std::uint32_t, std::uint32_t> securityIds; ///< id to a record that has it
    std::unordered_map<std::string, std::uint64_t> extendFiles;   ///< name in $Extend to record

  private:
    void readBootSector();
    bool readBootSectorAt(std::uint64_t offset, ntb::boot_fault& fault);
    void loadMft();

    std::vector<std::uint8_t> mftRecord_;
    File mft_;
    const Attribute* mftData_ = nullptr;
    std::uint64_t recordCount_ = 0;
    Progress progress_;
    std::uint64_t budget_ = 0;
    bool isExhausted_ = false;
};

} // namespace tavelin::check
