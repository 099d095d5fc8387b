/// A redo journal in the clusters of $LogFile, which Windows alone writes otherwise.
///
/// The first 64 KiB of the file stay blank (0xff), as where Windows never began a journal,
/// and whatever else stands there makes the rest not ours. Records (journal_record.hpp) follow each
/// other from there on. The place is a power of two because libntfs-3g looks for a journal of
/// Windows's at all of these: where it finds ours it takes the file for a damaged one and blanks
/// it before it writes to the volume, so no record outlives a change that it does not know of.
///
/// Records count from the first on for as long as they are whole and their numbers follow each
/// other. The first one's header is therefore what makes them all count: it is blanked, and the
/// device synchronised, before anything else of them is.
///
/// Results are 0, an errno of the device, or ENOMEM. Used under whatever serialises the device.
#pragma once

#include "core/journal/journal_record.hpp"

namespace tavelin {

class Journal {
  public:
    /// 0 with nothing found where the volume has no $LogFile for it: see LogFile, and one of less
    /// than 192 KiB.
    [[nodiscard]] static std::int32_t find(const std::shared_ptr<BlockDevice>& device,
                                           std::optional<Journal>& found) noexcept;

    /// Pages that a record can carry at most.
    [[nodiscard]] std::uint64_t capacity() const noexcept { return capacity_; }
    /// Whether a range of the device, in bytes, has any of $LogFile in it.
    [[nodiscard]] bool overlaps(std::uint64_t offset, std::uint64_t length) const noexcept {
        return log_.overlaps(offset, length);
    }

    /// See LogFile.
    void showBlank(std::byte* destination, std::uint64_t offset,
                   std::uint64_t length) const noexcept {
        log_.showBlank(destination, offset, length);
    }

    /// The pages of all records that count, each as the last one has it. Adds to `pages`.
    [[nodiscard]] std::int32_t readPending(PageMap& pages) const noexcept {
        return readRecords(end_, pages);
    }
    /// The same of those that were accepted since begin(): one that was not may have reached the
    /// device without the device having promised to keep it.
    [[nodiscard]] std::int32_t readAccepted(PageMap& pages) const noexcept {
        return readRecords(position_, pages);
    }

    /// Begins a session; blanks $LogFile unless it is. Nothing in it may count any more: its
    /// pending pages are in place, and the volume is mounted for writing, which the library allows
    /// only when Windows needs nothing of its journal.
    [[nodiscard]] std::int32_t begin() noexcept;

    /// Whether a record of so many pages can follow the last one: never after a reset() that
    /// failed, which may have taken away what it would follow.
    [[nodiscard]] bool fits(std::uint64_t pages) const noexcept {
        return !isStartingOver_ &&
               position_ + JournalRecord::length(pages) * LogFile::kPage <= end_;
    }
    /// Writes a record of the first pages of `content`, which fits. It does not count before the
    /// device is synchronised; commit() then makes the next one follow it. Without that the next
    /// one takes its place.
    [[nodiscard]] std::int32_t append(const PageMap& content, std::uint64_t pages) noexcept;
    void commit() noexcept;

    /// No record counts any more, and the next one is the first. Every page must be in place and
    /// the device synchronised; it is again when this returns.
    [[nodiscard]] std::int32_t reset() noexcept;
    /// After reset(): leaves $LogFile as begin() found or made it.
    [[nodiscard]] std::int32_t makeBlank() noexcept;
    /// The same for whatever a former session left.
    [[nodiscard]] std::int32_t makeAllBlank() noexcept;

    /// In builds with assertions: stops the process where positions and limits contradict.
    void checkInvariants() const noexcept;

    /// Whether there has been a record since begin() or makeBlank().
    [[nodiscard]] bool isUsed() const noexcept { return used_ > kBegin; }

  private:
    static constexpr std::uint64_t kPage = LogFile::kPage;
    static constexpr std::uint64_t kBegin = 64u << 10; ///< bytes in $LogFile, a power of two
    static constexpr std::uint64_t kLeast = 128u << 10;
    static constexpr std::uint64_t kMost = 32u << 20; ///< bytes of records

    Journal(std::shared_ptr<BlockDevice> device, LogFile log, std::uint64_t serial);

    [[nodiscard]] std::int32_t readRecords(std::uint64_t end, PageMap& pages) const noexcept;
    /// Adds the record at `position` and moves on behind it; false when it does not count.
    [[nodiscard]] std::int32_t readRecord(std::uint64_t& position, JournalRecord& last,
                                          PageMap& pages, bool& counts) const;

    std::shared_ptr<BlockDevice> device_;
    LogFile log_;
    std::uint64_t serial_;
    std::uint64_t end_;      ///< bytes in $LogFile
    std::uint64_t capacity_; ///< pages
    std::uint64_t session_ = 0;
    std::uint64_t sequence_ = 1;      ///< of the next record
    std::uint64_t position_ = kBegin; ///< of the next record, bytes in $LogFile
    bool isStartingOver_ = false;
    std::uint64_t appended_ = 0;  ///< bytes of the record that awaits commit()
    std::uint64_t used_ = kBegin; ///< where the furthest record of the session ends
};

} // namespace tavelin
