/// A redo journal in the clusters of $LogFile, which Windows alone writes otherwise.
///
/// The first 64 KiB of the file stay blank (0xff), as where Windows never began a journal,
/// and whatever else stands there makes the rest not ours. Records (journal_record.hpp) follow each
/// other from there on. The place is a power of two because libntfs-3g looks for a journal of
/// Windows's at all of these: where it finds ours it takes the file for a damaged one and blanks
/// it before it writes to the volume, so no record outlives a change that it does not know of.
///
/// Records are valid from the first on for as long as they are whole and their numbers follow each
/// other. The first one's header is therefore what makes them all valid. To start over, it gives
/// way to a record without pages, one sector that arrives as a whole, and the device is
/// synchronised before anything else of the records is touched.
///
/// A session begins with the first record and ends with all of the file blank: in between the
/// volume is busy, outside of it any system finds it as if there had never been a journal. The
/// header goes last, so that an end that was cut off is seen and made up for by the next mount.
///
/// Results are 0, an errno of the device, or ENOMEM. Used under whatever serialises the device.
#pragma once

#include "core/journal/journal_record.hpp"

namespace tavelin {

/// What valid records say of the device's pages.
struct JournaledPages {
    PageMap content; ///< each page as the last record has it
    /// By page, what a home location may have without anybody else having written to it: what was
    /// there before each record, and what the record put there.
    std::map<std::uint64_t, std::vector<SectorSums>> expected;
    /// What the last record lists: the pages that it carries, and the file data that must be at
    /// home for the record to have been written whole. Earlier ones need no such look: the next
    /// record was begun after the sync of the one before it.
    std::vector<JournalEntry> last, named;
    std::uint64_t lastPosition = 0; ///< of the last record, in bytes of $LogFile
};

class Journal {
  public:
    /// 0 with nothing found where the volume has no $LogFile for it: see LogFile, and one of less
    /// than 192 KiB.
    [[nodiscard]] static std::int32_t find(const std::shared_ptr<BlockDevice>& device,
                                           std::optional<Journal>& found,
                                           JournalAbsence& absence) noexcept;

    /// Pages that a record can carry at most, and pages of file data that it can name besides.
    [[nodiscard]] std::uint64_t capacity() const noexcept { return capacity_; }
    [[nodiscard]] std::uint64_t namedCapacity() const noexcept { return namedCapacity_; }
    /// Whether a range of the device, in bytes, has any of $LogFile in it.
    [[nodiscard]] bool overlaps(std::uint64_t offset, std::uint64_t length) const noexcept {
        return log_.overlaps(offset, length);
    }

    /// See LogFile.
    void showBlank(std::byte* destination, std::uint64_t offset,
                   std::uint64_t length) const noexcept {
        log_.showBlank(destination, offset, length);
    }

    /// The pages of all valid records of a former session, which then goes on: isBegun(). A record
    /// that cannot be read is not valid.
    [[nodiscard]] std::int32_t readPending(JournaledPages& pages) noexcept;
    /// After readPending(): the same without the last record, whose position is given. The session
    /// covers that one all the same.
    [[nodiscard]] std::int32_t readWithoutLast(std::uint64_t lastPosition,
                                               JournaledPages& pages) noexcept;
    /// Whether readPending met a sector that cannot be read.
    [[nodiscard]] bool isUnreadable() const noexcept { return isUnreadable_; }
    /// Whether readPending met a first record that is ours and not valid: a session that was cut
    /// off as it began, or that could not be ended.
    [[nodiscard]] bool hasRemainder() const noexcept { return hasRemainder_; }
    /// Whether $LogFile has refused writes again and again, with no record or end that succeeded in
    /// between: a sector of it cannot be written.
    [[nodiscard]] bool isUnwritable() const noexcept { return log_.failedWrites() >= kFailuresMax; }
    /// For a journal that cannot be read, or not be written: overwrites as much as can be. EIO when
    /// records that are valid and have pages remain.
    [[nodiscard]] std::int32_t makeInvalid() noexcept;
    /// The pages of the records that this session committed. One that it did not commit may have
    /// reached the device without the device having promised to keep it.
    [[nodiscard]] std::int32_t readCommitted(PageMap& pages) noexcept;

    /// Finds out whether something of another system's stands in $LogFile, which begin() then takes
    /// away. The volume is mounted for writing, which the library allows only when Windows needs
    /// nothing of its journal. Writes nothing.
    [[nodiscard]] std::int32_t inspect() noexcept;

    /// Begins a session; none is under way. Its records say whether it sets the dirty flag.
    [[nodiscard]] std::int32_t begin(bool setsDirtyFlag) noexcept;
    [[nodiscard]] bool isBegun() const noexcept { return isBegun_; }
    /// Whoever ends the session leaves the flag set: no record from here on says otherwise.
    void leaveFlagSet() noexcept { flags_ = 0; }
    /// Of the session that is under way, or that readPending() has found.
    [[nodiscard]] bool setsDirtyFlag() const noexcept {
        return isBegun_ && (flags_ & JournalRecord::kSetsDirtyFlag) != 0;
    }
    /// Whether the flag is cleared if the session ends with what is committed now.
    [[nodiscard]] bool clearsDirtyFlag() const noexcept {
        return setsDirtyFlag() && (flags_ & JournalRecord::kIsPart) == 0;
    }
    /// The rest of a sync in parts turned out to be nothing.
    void endParts() noexcept { flags_ &= static_cast<std::uint16_t>(~JournalRecord::kIsPart); }

    /// Whether a record that carries and names so many pages can follow the last one: never after a
    /// reset() that failed, which may have taken away what it would follow.
    [[nodiscard]] bool fits(std::uint64_t pages, std::uint64_t named) const noexcept {
        return !isResetting_ &&
               position_ + JournalRecord::length(pages, named) * LogFile::kPage <= end_;
    }
    /// Writes a record of the pages of `content`; it fits. `entries` describes them, and then the
    /// pages to name; with `isPart` another record is to complete it. It is not sure to be valid
    /// before the device is synchronised; commit() then makes the next one follow it. Without that
    /// the next one takes its place.
    [[nodiscard]] std::int32_t append(const PageMap& content, std::span<const JournalEntry> entries,
                                      bool isPart) noexcept;
    /// Makes the appended record count: to be called once the device's sync has succeeded.
    void commit() noexcept;

    /// No record is valid any more, and the next one is the first. Every page must be home and the
    /// device synchronised; it is again when this returns.
    [[nodiscard]] std::int32_t reset() noexcept;
    /// Directly after a reset(): leaves $LogFile blank and synchronised, and the session is over.
    /// What was written to the device before is synchronised while a header still tells of the
    /// session. After an error it goes on.
    [[nodiscard]] std::int32_t end() noexcept;

    /// In builds with assertions: stops the process where positions and limits contradict.
    void checkInvariants() const noexcept;

  private:
    static constexpr std::uint64_t kPage = LogFile::kPage;
    static constexpr std::uint64_t kBegin = 64u << 10; ///< bytes in $LogFile, a power of two
    /// Less than this is not worth a journal: a sync of a few pages would fill it.
    static constexpr std::uint64_t kRecordBytesMin = 128u << 10;
    /// No more is used, which bounds the time of a replay and the memory that it takes.
    static constexpr std::uint64_t kRecordBytesMax = 32u << 20;
    /// Above this a sync of the device by itself is cheaper than a longer list.
    static constexpr std::uint64_t kNamedPagesMax = 1024;
    static_assert((kBegin & (kBegin - 1)) == 0, "every driver looks at powers of two");

    Journal(std::shared_ptr<BlockDevice> device, LogFile log, std::uint64_t serial);

    /// One failure may be passing; the second one says that it is not.
    static constexpr unsigned kFailuresMax = 2;

    using LastRecord = std::optional<JournalRecord>;
    /// What stands at one position of the file. `bytes` is the whole record, its content unescaped.
    struct Found {
        JournalRecord record;
        std::optional<std::vector<JournalEntry>> entries; ///< absent: no valid record is there
        std::vector<std::byte> bytes;
    };
    [[nodiscard]] std::int32_t readRecord(std::uint64_t position, const LastRecord& last,
                                          Found& found);
    /// Reads up to `end`; `position` is then where the last valid record ends.
    [[nodiscard]] std::int32_t readRecords(std::uint64_t end, JournaledPages& pages,
                                           LastRecord& last, std::uint64_t& position);
    /// Takes away what another system or an older session left, so that no record of it is valid.
    [[nodiscard]] std::int32_t blankAll() noexcept;
    /// Bytes of the block in which a record without pages is written as a whole.
    [[nodiscard]] std::uint64_t headerBlock() const noexcept;

    /// The device below the journal: what is written here passes no cache of ours.
    std::shared_ptr<BlockDevice> device_;
    /// Where the file's clusters are. Found once, as nobody moves them while the volume is mounted.
    LogFile log_;
    /// Of the volume, in every record.
    std::uint64_t serial_;
    /// Where records end: with the file, or where kRecordBytesMax are used up.
    std::uint64_t end_;           ///< bytes in $LogFile
    std::uint64_t capacity_;      ///< pages
    std::uint64_t namedCapacity_; ///< pages
    /// A random number of this session; 0 before the first.
    std::uint64_t session_ = 0;
    std::uint16_t flags_ = 0;         ///< of the last record of the session
    std::uint64_t sequence_ = 1;      ///< of the next record
    std::uint64_t position_ = kBegin; ///< of the next record, bytes in $LogFile
    /// A session is under way: $LogFile is not blank.
    bool isBegun_ = false;
    /// A reset or an end has begun and has not succeeded. No record may be appended until one has.
    bool isResetting_ = false;
    /// A sector of the file could not be read, so what it held is unknown.
    bool isUnreadable_ = false;
    bool hasRemainder_ = false;
    bool hasForeignContent_ = false;  ///< what this session did not write stands in the file
    std::uint64_t appended_ = 0;      ///< bytes of the record that awaits commit()
    std::uint16_t appendedFlags_ = 0; ///< and what flags_ become with it
    std::uint64_t used_ = kBegin;     ///< where the furthest record of the session ends
};

} // namespace tavelin
