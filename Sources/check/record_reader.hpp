/// File records and the cluster bitmap of a volume as they lie on the device, those of deleted
/// files among them; for commands that show what is below the file system.
///
/// Reads with the check's readers, without libntfs-3g, and changes nothing. What is on the device
/// is taken for hostile: whatever it says, memory and time stay within a bound that its size sets.
/// One thread at a time.
#pragma once

#include "NTFSBridge/ondisk/mapping_pairs.hpp"
#include "core/block_device.hpp"

#include <cstdint>
#include <ctime>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace tavelin::check {

/// One name of a file, in UTF-8; what is no valid UTF-16 becomes U+FFFD.
struct RecordName {
    std::string text;
    std::uint64_t directory = 0;         ///< record number
    std::uint16_t directorySequence = 0; ///< that the directory's record had then
    bool isShort = false;                ///< the 8.3 alias of another name
};

/// An attribute with its value in clusters, or in the record.
struct RecordExtents {
    std::uint32_t type = 0; ///< an ntb::attribute_type
    std::string name;       ///< empty for a file's content
    std::uint64_t size = 0; ///< bytes of the value
    bool isResident = false;
    bool isPlain = true;        ///< neither compressed nor encrypted
    bool isWhole = true;        ///< the run list could be read to its end
    std::vector<ntb::run> runs; ///< in VCN order; clusters are on the volume
};

/// A base record with the attributes that its extension records add.
struct FileRecord {
    std::uint64_t number = 0;
    std::uint16_t sequence = 0;
    bool isInUse = false;
    bool isDirectory = false;
    bool isWhole = true;      ///< all of its records could be read
    std::timespec modified{}; ///< of the content; 1970 when it is not known
    std::vector<RecordName> names;
    std::vector<RecordExtents> attributes;

    /// The file's content; null when it has none that could be found.
    [[nodiscard]] const RecordExtents* content() const noexcept;
    /// The first name that is no alias; null for a file without names.
    [[nodiscard]] const RecordName* name() const noexcept;
};

class RecordReader {
  public:
    /// Finds the file table. Absent, with the reason in `whyNot`, where the device has none. The
    /// device outlives the reader.
    [[nodiscard]] static std::unique_ptr<RecordReader> open(BlockDevice& device,
                                                            std::string& whyNot);
    ~RecordReader();
    RecordReader(const RecordReader&) = delete;
    RecordReader& operator=(const RecordReader&) = delete;

    [[nodiscard]] std::uint64_t recordCount() const noexcept;
    [[nodiscard]] std::uint64_t clusterSize() const noexcept; ///< bytes
    [[nodiscard]] std::uint64_t clusters() const noexcept;

    /// A base record, in use or not. Absent for one that was never written, or cannot be read, or
    /// continues another one.
    [[nodiscard]] std::optional<FileRecord> record(std::uint64_t number);
    /// Bytes of the content of the record that record() has answered last: zeros where nothing was
    /// written. 0 or the host's errno.
    [[nodiscard]] std::int32_t readContent(std::uint64_t offset, std::span<std::uint8_t> into);
    /// A bit for each cluster, the lowest of a byte first: set for those in use. Absent when it
    /// cannot be read.
    [[nodiscard]] std::optional<std::vector<std::uint8_t>> bitmap();
    /// "/a/b" of a record in use; empty when the way to the root cannot be found.
    [[nodiscard]] std::string pathOf(std::uint64_t number);

  private:
    struct State;
    explicit RecordReader(std::unique_ptr<State> state);

    const std::unique_ptr<State> state_;
};

} // namespace tavelin::check
