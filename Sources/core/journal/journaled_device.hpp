/// A block device that carries each flush over a power cut as a whole.
///
/// Writes wait in memory for sync(), which writes them to the journal (journal.hpp), makes the
/// device sync, and only then writes them where they belong. A power cut before the device's sync
/// leaves the volume as it was; after it, the next mount finds all of them in the journal. There
/// they stay, so where they belong they may arrive whenever the device likes; before the journal
/// begins again at its start the device is asked to sync.
///
/// File data is not written twice. Small pieces wait as well, and the sync writes them where they
/// belong just before the record, which names them by their checksums: the device's sync carries
/// both, and a record whose file data has not arrived is not replayed. Large pieces go straight to
/// the device, and so does what is too much to name; they are synced before a record is written
/// that may tell of the clusters they are in: one more sync of the device, but only then. A page
/// that the journal carries goes through it again, or its old content would come back over the new;
/// so does one that the last record names, which the record would miss.
///
/// The journal is begun by the first sync that has something to write and ended by settle(), when
/// the volume has been idle: a device that is pulled out then has nothing of ours in $LogFile, and
/// a mount that changes nothing writes nothing.
///
/// A replay replaces nothing that another system has written since. Every sector that the records
/// would replace must be as one of them found it or left it, or be unreadable. Otherwise nothing is
/// replayed, the volume is marked dirty (as it may hold half a flush) and the journal is voided.
///
/// The volume's dirty flag tells other systems that home locations may hold half a sync. The first
/// record of a session sets it, it goes home and is synced before any other page, and the end of
/// the session, or its replay, clears it. A flag that was set before is never cleared. Without a
/// journal the flag is set before the first write and cleared when the volume has been idle.
///
/// What this cannot do: a sync of more pages than the journal has capacity for is done in parts,
/// each whole by itself; after a cut between them the dirty flag stays. Nor does it know what was
/// freed since the last sync and belongs to its former owner again after a cut: whoever expects
/// file data keeps it from there.
///
/// Life: made over a device; replay() before the volume is opened; begin() once it is, for
/// writing; close() after it was unmounted. Without begin() it hands all calls on.
///
/// Where the device below allows it, what is at home may be read beside all this (observed()): the
/// device is wrapped in one that watches every write, those of the journal too.
///
/// Results are those of BlockDevice, ENOMEM, and EIO for $LogFile's clusters, which a sound volume
/// gives to nobody else. After a failed sync() all that waited still waits, for the next one. Takes
/// no lock, like any BlockDevice.
#pragma once

#include "core/block_device.hpp"
#include "core/journal/home_sums.hpp"
#include "core/journal/journal.hpp"

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace tavelin {

class JournaledDevice final : public BlockDevice {
  public:
    /// `inner` must not be null.
    /// The inner device is shared with the host, which must not write to it while this one is in
    /// use.
    explicit JournaledDevice(std::shared_ptr<BlockDevice> inner);

    /// Carries to its end what a power cut interrupted: writes it to the device, or, when that is
    /// only to be read, lets reads see it. Then errors of the device are not answered either, and
    /// nothing at all is written. A refusal is no error: it is logged, and booked as the event
    /// "journal_refused".
    [[nodiscard]] std::int32_t replay(bool readOnly) noexcept;
    /// Pages that the last replay() found and made, or shows as, part of the volume.
    [[nodiscard]] std::uint64_t recovered() const noexcept { return recovered_; }
    /// Whether the last replay() left out what it found, because another system has written to the
    /// same places since.
    [[nodiscard]] bool wasRefused() const noexcept { return wasRefused_; }
    /// Completes "The volume …" after a refusal.
    static constexpr const char* kRefusal =
        "was written to by another system after its last use here had been cut short, so the "
        "changes of the last moments before that were left out";
    /// Why there is no journal; none where there is one.
    [[nodiscard]] JournalAbsence absence() const noexcept { return absence_; }

    /// From now on writes wait for sync(). The volume has been opened for writing and its
    /// $LogFile is ours. Writes nothing. Without a usable one, and after an error, all stays as it
    /// was.
    [[nodiscard]] std::int32_t begin() noexcept;

    /// settle(), and nothing waits any more. After an error the journal is left for the next mount.
    [[nodiscard]] std::int32_t close() noexcept;

    /// Where nothing waits for the range and $LogFile is not in it, on a device that allows it.
    [[nodiscard]] ObservedDevice* observed(std::uint64_t offset,
                                           std::uint64_t length) noexcept override;
    void awaitReadsBeside() noexcept override;

    [[nodiscard]] std::uint64_t size() const noexcept override { return inner_->size(); }
    [[nodiscard]] std::uint32_t blockSize() const noexcept override { return inner_->blockSize(); }
    /// Shows pending content in place of what the device has, and $LogFile as blank.
    [[nodiscard]] std::int32_t read(std::byte* destination, std::uint64_t offset,
                                    std::uint64_t length) noexcept override;
    /// Keeps the bytes in memory until sync(), but for bulk data.
    [[nodiscard]] std::int32_t write(const std::byte* source, std::uint64_t offset,
                                     std::uint64_t length) noexcept override;
    /// Keeps the bytes in memory until sync(), or brings them home when they are too many: before
    /// the record that makes them reachable.
    [[nodiscard]] std::int32_t writeFileData(const std::byte* source, std::uint64_t offset,
                                             std::uint64_t length) noexcept override;
    /// Only while no record is valid and nothing waits, which settle() brings about: a replay reads
    /// and replaces the places that records have, and must find them as they were.
    [[nodiscard]] std::int32_t discard(std::uint64_t offset,
                                       std::uint64_t length) noexcept override;
    /// Commits everything pending as one record. On success it is durable, though perhaps not home.
    [[nodiscard]] std::int32_t sync() noexcept override;
    /// Pending pages, and how many of them one record carries.
    [[nodiscard]] Backlog backlog() const noexcept override;
    /// Nothing is pending and $LogFile is blank.
    [[nodiscard]] bool isSettled() const noexcept override;
    /// Syncs and leaves $LogFile blank, for other systems to find it so.
    [[nodiscard]] std::int32_t settle() noexcept override;
    /// Sets the volume's dirty flag when it next settles, and leaves it.
    void noteDamage() noexcept override;
    void expectBulkData(bool on) noexcept override { expectsBulkData_ = on; }
    void checkInvariants() const noexcept override;

  private:
    static constexpr std::uint64_t kPage = LogFile::kPage;
    static constexpr std::uint64_t kRunPagesMax = 256; ///< pages read or written in one go
    /// Pages that the two records with the dirty flag may lie in.
    static constexpr std::uint64_t kFlagPagesMax = 4;
    static constexpr std::uint16_t kDirty = 1; ///< in what ntb_volume_flags() stores

    /// Forgets everything that an earlier replay found, on a device that may be another by now.
    void forgetReplay() noexcept;
    /// Ends a journal that has just been replayed, or was found unreadable.
    [[nodiscard]] std::int32_t endReplayed() noexcept;
    /// Marks the volume dirty and leaves no record valid.
    [[nodiscard]] std::int32_t refuse(std::uint64_t page, bool readOnly) noexcept;

    /// Reads around $LogFile, which shows as blank.
    [[nodiscard]] std::int32_t readWithoutLog(std::byte* destination, std::uint64_t offset,
                                              std::uint64_t length) noexcept;
    /// Whether anything written has not been synced.
    [[nodiscard]] bool hasUnsynced() const noexcept {
        return !pending_.empty() || !fileData_.empty() || bypassedSinceSync_;
    }
    /// Whether file data may not be written to a page around the journal.
    [[nodiscard]] bool isJournaled(std::uint64_t page) const noexcept;
    /// The first page from `page` on that waits, or of which isJournaled().
    [[nodiscard]] std::uint64_t nextJournaled(std::uint64_t page) const noexcept;
    /// Copies a write into pending_, page by page.
    [[nodiscard]] std::int32_t buffer(const std::byte* source, std::uint64_t offset,
                                      std::uint64_t length) noexcept;
    /// The part of a write that falls into one page. Reads the rest of the page first where it is
    /// new.
    [[nodiscard]] std::int32_t bufferPart(std::uint64_t page, const std::byte* source,
                                          std::uint64_t inPage, std::uint64_t length);
    /// Writes file data where it belongs, but for pages that have to go with the next record.
    [[nodiscard]] std::int32_t writeAround(const std::byte* source, std::uint64_t offset,
                                           std::uint64_t length) noexcept;
    /// Before a page of file data is written: no record is valid any more where the next one would
    /// otherwise have to carry too many such pages.
    [[nodiscard]] std::int32_t limitCarried(std::uint64_t page) noexcept;
    /// Takes one page of file data.
    [[nodiscard]] std::int32_t keepFileData(std::uint64_t page, const std::byte* source);
    /// Pages that may be pending. The flag's pages find room in the record besides.
    [[nodiscard]] std::uint64_t capacity() const noexcept {
        return journal_->capacity() - kFlagPagesMax;
    }

    /// Finds the pages in which the dirty flag is.
    [[nodiscard]] std::int32_t findFlag() noexcept;
    [[nodiscard]] bool isFlagPage(std::uint64_t page) const noexcept;
    /// Learns how the flag was found.
    [[nodiscard]] std::int32_t readFlag() noexcept;
    /// Changes the flag on the device, or in what is pending. Nothing where a volume has none.
    [[nodiscard]] std::int32_t writeFlag(bool isDirty) noexcept;
    [[nodiscard]] std::int32_t putFlag(bool isDirty) noexcept;
    /// Begins a session of the journal unless one is under way.
    [[nodiscard]] std::int32_t beginSession() noexcept;
    /// Of the pages with the flag, how many are not pending.
    [[nodiscard]] std::uint64_t missingFlagPages() const noexcept;
    /// Has the next record set the flag, or not clear it. Throws std::bad_alloc.
    [[nodiscard]] std::int32_t carryFlag();
    /// Ends the session, with the flag as it was found. Every page is home and synced.
    [[nodiscard]] std::int32_t endSession() noexcept;
    /// Of a volume without a journal: sets the flag before the first write of a busy period.
    [[nodiscard]] std::int32_t writeUnjournaled(const std::byte* source, std::uint64_t offset,
                                                std::uint64_t length) noexcept;
    /// Writes what covers a page of the dirty flag, with the flag set in it.
    [[nodiscard]] std::int32_t writeMarked(const std::byte* source, std::uint64_t offset,
                                           std::uint64_t length) noexcept;
    /// What settle() has to do where there is a session of the journal.
    [[nodiscard]] std::int32_t settleJournaled() noexcept;
    /// Without a journal: clears the flag when the busy period is over.
    [[nodiscard]] std::int32_t settleUnjournaled() noexcept;

    /// For a $LogFile that cannot be written: makes its records invalid and goes on without.
    [[nodiscard]] std::int32_t abandonJournal() noexcept;
    /// The rest of that: what is pending goes home without a record.
    [[nodiscard]] std::int32_t leaveJournal() noexcept;
    /// sync(); with `isPart` what waits is only the beginning of it.
    [[nodiscard]] std::int32_t syncPending(bool isPart) noexcept;
    /// Writes what is pending as one record, syncs, and writes the pages home.
    [[nodiscard]] std::int32_t commit(bool isPart) noexcept;
    /// After a commit: writes its pages home. Throws std::bad_alloc.
    [[nodiscard]] std::int32_t bringHome(std::span<const JournalEntry> carried);
    /// Lists what waits, with the checksums of what it will replace and of itself.
    [[nodiscard]] std::int32_t describePending(std::vector<JournalEntry>& entries);
    /// Adds the file data, which is home but not synced.
    void nameFileData(std::vector<JournalEntry>& entries, std::vector<std::uint64_t>& named);
    /// Reads the home locations of the entries from `first` on that `isKnown` has not, in runs.
    [[nodiscard]] std::int32_t sumHome(std::vector<JournalEntry>& entries,
                                       const std::vector<bool>& isKnown);
    /// Writes the flag's pages, and syncs.
    [[nodiscard]] std::int32_t writeFlagHome(const PageMap& pages) noexcept;
    /// Writes what a record has where it belongs, the pages of a flag that is not there yet first.
    [[nodiscard]] std::int32_t writeHome(const PageMap& pages) noexcept;
    /// Writes pages where they belong. What is known of the places is forgotten.
    [[nodiscard]] std::int32_t writePages(const PageMap& pages, bool exceptFlag = false) noexcept;
    /// After a home write that failed: brings every page of the committed records home.
    [[nodiscard]] std::int32_t finishHomeWrites() noexcept;
    /// Brings every page of the records home, syncs, and makes room for new records.
    [[nodiscard]] std::int32_t reset() noexcept;

    /// What is written there is on its way to the medium, and durable after its sync().
    const std::shared_ptr<BlockDevice> inner_;
    /// The same, where it may be read beside other calls; else null.
    ObservedDevice* const observed_;
    /// Absent when $LogFile cannot be used; absence_ says why.
    std::optional<Journal> journal_;
    JournalAbsence absence_ = JournalAbsence::none;
    /// Between begin() and close(): writes go through the journal.
    bool isOn_ = false;
    bool hidesLog_ = false; ///< $LogFile cannot be read and is shown as blank
    /// Writes over 64 KiB are bulk data at the moment, see expectBulkData().
    bool expectsBulkData_ = false;
    bool bypassedSinceSync_ = false; ///< file data was written since the device last synced
    PageMap pending_; ///< waiting for sync(), or, without begin(), seen by reads only
    /// File data that waits for sync(): none of these pages is pending, or isJournaled().
    PageMap fileData_;
    /// Pages of file data that the last valid record names, in ascending order.
    std::vector<std::uint64_t> named_;
    /// Pages that valid records have and that are home, or pending too; what the last of the
    /// records made them.
    std::map<std::uint64_t, SectorSums> inJournal_;
    /// Of pages at home, so that a commit need not read them again.
    HomeSums sums_;
    /// A committed record is not fully home because a home write failed. All its pages are still
    /// pending, possibly with newer content.
    bool checkpointPending_ = false;
    bool isCommitting_ = false; ///< a sync is at work: what it adds to pending_ finds room
    std::vector<std::uint64_t> flagPages_; ///< none where the volume has no flag
    /// During a session, or while a volume without a journal is busy: the flag is set at home, and
    /// must stay so. isMarkHome_ says that it is there, durably.
    bool isMarked_ = false;
    bool isMarkHome_ = false;
    bool keepsFlag_ = false;    ///< the volume may be damaged: the flag is not cleared any more
    bool isAbandoned_ = false;  ///< the journal, but something is pending still
    bool needsFlag_ = false;    ///< and is to be set when the device settles
    bool marksAlone_ = false;   ///< mounted for writing without a journal
    bool isBusy_ = false;       ///< it was written to since it settled
    bool isMarkOurs_ = false;   ///< it was found without the flag
    bool readsSectors_ = false; ///< the home of a pending page could not be read at the last sync
    /// Pages of the last replay.
    std::uint64_t recovered_ = 0;
    bool wasRefused_ = false;
};

} // namespace tavelin
