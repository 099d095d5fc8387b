// How a journal is found, replayed or refused, begun and ended.
#include "core/device_box.hpp"
#include "core/journal/home_check.hpp"
#include "core/journal/journaled_device.hpp"
#include "diagnostics/event_log.hpp"
#include "diagnostics/log.hpp"
#include "platform/assert.hpp"

#include <fmt/format.h>

#include <cerrno>
#include <new>

namespace tavelin {

namespace {

// Runs what logs or books an event. It may run out of memory, and no recovery may fail for want of
// a message.
template<typename Body>
void tell(Body body) noexcept {
    try {
        body();
    } catch (const std::exception&) {
        return; // no memory for the message; what it is about happens all the same
    }
}

} // namespace

void JournaledDevice::forgetReplay() noexcept {
    isOn_ = hidesLog_ = checkpointPending_ = readsSectors_ = wasRefused_ = false;
    isMarked_ = isMarkHome_ = keepsFlag_ = needsFlag_ = marksAlone_ = isBusy_ = isMarkOurs_ =
        isAbandoned_ = false;
    pending_.clear();
    fileData_.clear();
    inJournal_.clear();
    named_.clear();
    journal_.reset();
    absence_ = JournalAbsence::none;
    recovered_ = 0;
}

std::int32_t JournaledDevice::replay(bool readOnly) noexcept {
    // The device may have been changed since an earlier replay, so nothing of that one is believed.
    forgetReplay();
    JournaledPages found;
    std::optional<std::uint64_t> foreign;
    std::int32_t error = Journal::find(inner_, journal_, absence_);
    if (error == 0) {
        error = findFlag();
    }
    if (error == 0 && journal_) {
        error = journal_->readPending(found);
        isMarked_ = journal_->setsDirtyFlag();
    }
    if (error == 0) {
        // Every place is checked before any is written: a replay that stopped half-way at a foreign
        // page would leave a mixture that neither system made.
        error = findForeignPage(*inner_, found, foreign);
    }
    if (error == 0 && journal_ && !foreign) {
        error = leaveOutUnfinished(*inner_, *journal_, found);
    }
    if (error != 0) {
        tell([&] { log().error(fmt::format("journal: cannot be read, errno {}", error)); });
        // A read-only mount is the way to save files from a failing disk, so it goes on without the
        // records. A mount for writing must not: it would change pages that the records may still
        // replace.
        return readOnly ? 0 : error;
    }
    if (foreign) {
        return refuse(*foreign, readOnly);
    }
    recovered_ = found.content.size();
    if (readOnly) {
        // Reads are answered from pending_, so the volume shows what a replay would make of it.
        // isOn_ stays off: writes would go to the device, and no sync writes these pages.
        pending_ = std::move(found.content);
        // The end of a replay clears a flag that the session had set. Where that cannot be shown,
        // the volume shows as marked.
        static_cast<void>(isMarked_ && journal_->clearsDirtyFlag() ? putFlag(false) : 0);
        return 0;
    }
    if (recovered_ > 0) {
        // A replay that is cut off is repeated from the start by the next mount: it writes the same
        // content, and each sector is then as before or after a record, which the check accepts.
        if (error = writeHome(found.content); error != 0) {
            return error;
        }
        // The pages must be durable at home before the records that could write them again become
        // invalid.
        if (error = inner_->sync(); error != 0) {
            return error;
        }
    }
    // A journal with records must be ended. So must one with an unreadable sector, behind which
    // records may stand that become readable later, and one whose header alone is left.
    const bool isOver =
        !journal_ || !(journal_->isBegun() || journal_->isUnreadable() || journal_->hasRemainder());
    return isOver ? 0 : endReplayed();
}

std::int32_t JournaledDevice::endReplayed() noexcept {
    // From here on the volume changes. Records that stayed valid would be replayed over these
    // changes after a cut.
    const bool clearsFlag = journal_->clearsDirtyFlag();
    std::int32_t error = endSession();
    if (error == EIO && !journal_->isUnreadable()) {
        error = endSession(); // a fault may pass
    }
    if (error == EIO) {
        // The records have been replayed and the volume is sound. Whether it can be used must not
        // depend on one bad sector of $LogFile, so the rest of the records is made invalid and the
        // volume works without a journal.
        error = journal_->makeInvalid();
        hidesLog_ = error == 0;
        absence_ = hidesLog_ ? JournalAbsence::unreadable : absence_;
        if (hidesLog_ && clearsFlag) {
            // The records that told of it are gone. A flag that stays set has the volume checked.
            static_cast<void>(writeFlag(false));
            isMarked_ = isMarkHome_ = false;
        }
    }
    return error;
}

std::int32_t JournaledDevice::refuse(std::uint64_t page, bool readOnly) noexcept {
    // The mount's check and `tavelin check` ask for it: they have to say that changes are missing.
    wasRefused_ = true;
    tell([&] {
        log().error(fmt::format("journal: not replayed: the volume {} (page {})", kRefusal, page));
        events().event("journal_refused", Fields{{"page", page}, {"ro", readOnly}});
    });
    // Reads then show the places as they are, without the records.
    if (readOnly) {
        return 0;
    }
    // The flag is durable before the records go: once they are gone, nothing else says that a
    // part of a sync may be missing.
    DeviceBox box(inner_);
    const ntb_io io = makeIO(box);
    // EINVAL says that $Volume has no flags to set. That must not stop the rest, and the check that
    // a mount makes then finds what is wrong.
    if (const std::int32_t error = ntb_set_dirty(&io, 1); error != 0 && error != EINVAL) {
        return error;
    }
    if (const std::int32_t error = inner_->sync(); error != 0) {
        return error;
    }
    keepsFlag_ = true;
    return endSession();
}

std::int32_t JournaledDevice::begin() noexcept {
    marksAlone_ = true; // until there turns out to be a journal
    if (!journal_ || hidesLog_) {
        return 0;
    }
    // Now and not in replay(): the mount that came between may have emptied $LogFile itself.
    const std::int32_t error = journal_->inspect();
    if (error == EIO) {
        absence_ = JournalAbsence::unreadable;
        hidesLog_ = true;
        return 0;
    }
    if (error == 0) {
        // From here on, not earlier: only a journal needs to know what a page was.
        sums_.enable();
        isOn_ = true;
        marksAlone_ = false;
    }
    return error;
}

bool JournaledDevice::isSettled() const noexcept {
    const bool isIdle = isOn_ ? !hasUnsynced() && !journal_->isBegun() : !isBusy_;
    return isIdle && !needsFlag_;
}

void JournaledDevice::noteDamage() noexcept {
    // A volume that is only read is not written to for this either.
    if (!keepsFlag_ && (isOn_ || marksAlone_)) {
        keepsFlag_ = needsFlag_ = true;
    }
}

std::int32_t JournaledDevice::settle() noexcept {
    // A volume that changed nothing keeps its $LogFile untouched, and the tick of an idle volume
    // costs no write.
    if (isSettled()) {
        return 0;
    }
    if (const std::int32_t error = isOn_ ? settleJournaled() : 0; error != 0) {
        return error;
    }
    // Also where the journal has just been found unwritable.
    if (const std::int32_t error = isOn_ ? 0 : settleUnjournaled(); error != 0) {
        return error;
    }
    if (needsFlag_) {
        if (const std::int32_t error = writeFlag(true); error != 0) {
            return error;
        }
        if (const std::int32_t error = inner_->sync(); error != 0) {
            return error;
        }
        needsFlag_ = false;
    }
    return 0;
}

std::int32_t JournaledDevice::settleJournaled() noexcept {
    if (hasUnsynced()) {
        if (const std::int32_t error = sync(); error != 0) {
            return error;
        }
    }
    // A sync that succeeded has brought every page home, so the records may go.
    TAVELIN_ASSERT(!hasUnsynced() && !checkpointPending_);
    if (!journal_->isBegun()) {
        return 0;
    }
    // Home writes must be durable before the records that could repeat them become invalid.
    if (const std::int32_t error = inner_->sync(); error != 0) {
        return error;
    }
    journal_->endParts();
    std::int32_t error = endSession();
    if (error == EIO && journal_->isUnwritable()) {
        error = abandonJournal();
    }
    return error;
}

std::int32_t JournaledDevice::abandonJournal() noexcept {
    // A sector of $LogFile takes no write, and with it no sync would ever succeed. Where this fails
    // as well it is the device and not the sector, and the journal stays.
    tell([] { log().error("journal: $LogFile cannot be written, going on without a journal"); });
    if (const std::int32_t error = finishHomeWrites(); error != 0) {
        return error;
    }
    // The flag is home before anything that no record has.
    isMarkOurs_ = isMarked_ && (!isMarkHome_ || journal_->setsDirtyFlag());
    if (const std::int32_t error = isMarkOurs_ ? writeFlag(true) : 0; error != 0) {
        return error;
    }
    if (const std::int32_t error = inner_->sync(); error != 0) {
        return error;
    }
    isMarkHome_ = isMarked_;
    if (const std::int32_t error = journal_->makeInvalid(); error != 0) {
        return error;
    }
    inJournal_.clear();
    named_.clear();
    isAbandoned_ = true;
    return leaveJournal();
}

std::int32_t JournaledDevice::leaveJournal() noexcept {
    TAVELIN_ASSERT(isAbandoned_);
    if (const std::int32_t error = writePages(fileData_); error != 0) {
        return error;
    }
    // At home the flag is set already, so this changes pages only that are pending anyway.
    if (const std::int32_t error = isMarked_ ? putFlag(true) : 0; error != 0) {
        return error;
    }
    if (const std::int32_t error = writeHome(pending_); error != 0) {
        return error;
    }
    if (const std::int32_t error = inner_->sync(); error != 0) {
        return error;
    }
    pending_.clear();
    fileData_.clear();
    readsSectors_ = isOn_ = isAbandoned_ = false;
    hidesLog_ = marksAlone_ = isBusy_ = true;
    absence_ = JournalAbsence::unreadable;
    return 0;
}

std::int32_t JournaledDevice::close() noexcept {
    if (const std::int32_t error = settle(); error != 0) {
        return error;
    }
    // After an error it stays on: what waits is still seen by reads, and the records stay for the
    // next mount.
    isOn_ = marksAlone_ = false;
    return 0;
}

} // namespace tavelin
