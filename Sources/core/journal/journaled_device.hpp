/// A block device that carries each flush over a power cut as a whole.
///
/// Writes wait in memory for sync(), which writes them to the journal (journal.hpp), makes the
/// device sync, and only then writes them where they belong. A power cut before the device's sync
/// leaves the volume as it was; after it, the next mount finds all of them in the journal. There
/// they stay, so where they belong they may arrive whenever the device likes; before the journal
/// begins again at its start the device is asked to sync.
///
/// Large writes of file data go straight to the device, so that they are not written twice. They
/// are synced before a record is written that may tell of the clusters they are in: one more sync
/// of the device, but only then. A page that the journal has goes through it again, or its old
/// content would come back over the new.
///
/// What this cannot do: a sync of more pages than the journal has capacity for is done in parts,
/// each whole by itself. Nor does it know what was freed since the last sync and belongs to its
/// former owner again after a cut: whoever expects file data keeps it from there.
///
/// Life: made over a device; replay() before the volume is opened; begin() once it is, for
/// writing; close() after it was unmounted. Without begin() it hands all calls on.
///
/// Results are those of BlockDevice, ENOMEM, and EIO for $LogFile's clusters, which a sound volume
/// gives to nobody else. After a failed sync() all that waited still waits, for the next one. Takes
/// no lock, like any BlockDevice.
#pragma once

#include "core/block_device.hpp"
#include "core/journal/journal.hpp"

#include <memory>
#include <optional>

namespace tavelin {

class JournaledDevice final : public BlockDevice {
  public:
    /// `inner` must not be null.
    explicit JournaledDevice(std::shared_ptr<BlockDevice> inner) : inner_(std::move(inner)) {}

    /// Carries to its end what a power cut interrupted: writes it to the device, or, when that is
    /// only to be read, lets reads see it. Then errors of the device are not answered either.
    [[nodiscard]] std::int32_t replay(bool readOnly) noexcept;
    /// Pages that the last replay() found.
    [[nodiscard]] std::uint64_t recovered() const noexcept { return recovered_; }

    /// From now on writes wait for sync(). The volume has been opened for writing and its
    /// $LogFile is ours. Without a usable one, and after an error, all stays as it was.
    [[nodiscard]] std::int32_t begin() noexcept;

    /// Syncs and leaves $LogFile blank, for other systems to find it so; nothing waits any more.
    /// After an error the journal is left for the next mount.
    [[nodiscard]] std::int32_t close() noexcept;

    [[nodiscard]] std::uint64_t size() const noexcept override { return inner_->size(); }
    [[nodiscard]] std::uint32_t blockSize() const noexcept override { return inner_->blockSize(); }
    [[nodiscard]] std::int32_t read(std::byte* destination, std::uint64_t offset,
                                    std::uint64_t length) noexcept override;
    [[nodiscard]] std::int32_t write(const std::byte* source, std::uint64_t offset,
                                     std::uint64_t length) noexcept override;
    [[nodiscard]] std::int32_t sync() noexcept override;
    [[nodiscard]] Backlog backlog() const noexcept override;
    void expectBulkData(bool on) noexcept override { hasFileData_ = on; }
    void checkInvariants() const noexcept override;

  private:
    static constexpr std::uint64_t kPage = LogFile::kPage;

    [[nodiscard]] std::uint64_t lengthOf(std::uint64_t page) const noexcept;
    /// The first page from `page` on that waits or that the journal has.
    [[nodiscard]] std::uint64_t nextJournaled(std::uint64_t page) const noexcept;
    [[nodiscard]] std::int32_t buffer(const std::byte* source, std::uint64_t offset,
                                      std::uint64_t length) noexcept;
    [[nodiscard]] std::int32_t holdPart(std::uint64_t page, const std::byte* source,
                                        std::uint64_t inPage, std::uint64_t length);
    [[nodiscard]] std::int32_t commit() noexcept;
    /// Writes the first `count` pages where they belong.
    [[nodiscard]] std::int32_t writeHome(const PageMap& pages, std::uint64_t count) noexcept;
    [[nodiscard]] std::int32_t reset() noexcept;

    const std::shared_ptr<BlockDevice> inner_;
    std::optional<Journal> journal_;
    bool isOn_ = false;
    bool hasFileData_ = false;
    bool hasGoneAhead_ = false; ///< file data was written since the device last synced
    PageMap pending_;           ///< waiting for sync(), or, without begin(), seen by reads only
    PageMap inJournal_;         ///< no content: pages of records that count, and that are in place
    /// A record counts of which not every page is in place: writing them failed. All of them are
    /// held, some perhaps with newer content.
    bool checkpointPending_ = false;
    std::uint64_t recovered_ = 0;
};

} // namespace tavelin
