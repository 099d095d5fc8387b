/// The volume's $LogFile as one row of bytes, wherever on the device its pieces are.
#pragma once

#include "NTFSBridge/ntb.h"
#include "core/block_device.hpp"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace tavelin {

/// Why a volume has no journal, or none any more.
enum class JournalAbsence {
    none,        ///< it has one
    notPlain,    ///< $LogFile is missing, damaged, sparse or in too many pieces
    unaligned,   ///< a piece of it shares a page of the device with something else
    largeBlocks, ///< the device's blocks are larger than a page
    tooSmall,    ///< $LogFile has less than 192 KiB
    unreadable,  ///< a sector of it can be neither read nor written
};

/// "$LogFile is not stored plainly", for the log and for people; empty for none.
[[nodiscard]] const char* describe(JournalAbsence absence) noexcept;

/// Reads and writes go straight to the device, in its blocks, and stay inside the file. Results are
/// 0 or the device's errno; a read that answers EIO has failed twice, so that a passing fault is
/// not taken for a lost sector. Used under whatever serialises the device.
class LogFile {
  public:
    static constexpr std::uint64_t kPage = BlockDevice::kPageBytes;

    /// Finds it without mounting. 0 with nothing found means that there is none that can be used,
    /// and `absence` says why; see ntb_log_extents. Pieces that share a page of the device, as
    /// small clusters may have it, are of no use because caches write whole pages. Otherwise an
    /// error of the device, or ENOMEM.
    [[nodiscard]] static std::int32_t find(const std::shared_ptr<BlockDevice>& device,
                                           std::optional<LogFile>& found,
                                           JournalAbsence& absence) noexcept;

    [[nodiscard]] std::uint64_t size() const noexcept { return size_; } ///< bytes, whole pages

    /// Offsets are those of the file and, like lengths, whole blocks of the device.
    [[nodiscard]] std::int32_t read(std::byte* destination, std::uint64_t offset,
                                    std::uint64_t length) const noexcept;
    [[nodiscard]] std::int32_t write(const std::byte* source, std::uint64_t offset,
                                     std::uint64_t length) noexcept;
    /// As BlockDevice's; throws std::bad_alloc.
    [[nodiscard]] std::int32_t writeGathered(GatheredBytes parts, std::uint64_t offset);
    /// Writes of any kind that answered EIO since forgetFailures().
    [[nodiscard]] unsigned failedWrites() const noexcept { return failedWrites_; }
    void forgetFailures() noexcept { failedWrites_ = 0; }
    /// Whether every byte from `begin` to `end` is 0xff, as where nobody keeps a log. Pages that
    /// cannot be read (EIO) do not count; `lost` says that there are such. They are not blank when
    /// all of them are lost.
    [[nodiscard]] std::int32_t isBlank(std::uint64_t begin, std::uint64_t end, bool& blank,
                                       bool& lost) const noexcept;
    /// Fills a range with 0xff. After an error a part of it may have been filled.
    [[nodiscard]] std::int32_t makeBlank(std::uint64_t begin, std::uint64_t end) noexcept;
    /// The same for each page that lets itself be written.
    void makeBlankWherePossible(std::uint64_t begin, std::uint64_t end) noexcept;

    /// Overwrites with 0xff what `destination`, read from a range of the device, has of the file.
    void showBlank(std::byte* destination, std::uint64_t offset,
                   std::uint64_t length) const noexcept;

    /// Whether a range of the device, in bytes, has any of the file in it.
    [[nodiscard]] bool overlaps(std::uint64_t offset, std::uint64_t length) const noexcept;

  private:
    /// The extents were found sound by the bridge and aligned by find().
    LogFile(std::shared_ptr<BlockDevice> device, std::vector<ntb_extent> extents);

    /// Calls transfer(done, deviceOffset, count) for each piece of the range.
    template<typename Transfer>
    std::int32_t eachPiece(std::uint64_t offset, std::uint64_t length,
                           Transfer transfer) const noexcept;

    std::shared_ptr<BlockDevice> device_;
    /// In the order of the file, whole pages each, at most 64.
    std::vector<ntb_extent> extents_;
    /// Bytes of all extents together.
    std::uint64_t size_ = 0;
    unsigned failedWrites_ = 0;
};

} // namespace tavelin
