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

/// For what must not fail because it cannot be told.
template<typename Body>
void tell(Body body) noexcept {
    try {
        body();
    } catch (const std::exception&) {
        return; // no memory for the message; what it is about happens all the same
    }
}

} // namespace

void JournaledDevice::startOver() noexcept {
    isOn_ = hidesLog_ = checkpointPending_ = readsSectors_ = wasRefused_ = false;
    pending_.clear();
    inJournal_.clear();
    journal_.reset();
    absence_ = JournalAbsence::none;
    recovered_ = 0;
}

std::int32_t JournaledDevice::replay(bool readOnly) noexcept {
    startOver();
    JournaledPages found;
    std::optional<std::uint64_t> foreign;
    std::int32_t error = Journal::find(inner_, journal_, absence_);
    if (error == 0 && journal_) {
        error = journal_->readPending(found);
    }
    if (error == 0) {
        error = findForeignPage(*inner_, found, foreign);
    }
    if (error != 0) {
        tell([&] { log().error(fmt::format("journal: cannot be read, errno {}", error)); });
        return readOnly ? 0 : error;
    }
    if (foreign) {
        return refuse(*foreign, readOnly);
    }
    recovered_ = found.content.size();
    if (readOnly) {
        pending_ = std::move(found.content);
        return 0;
    }
    if (recovered_ > 0) {
        if (error = writeHome(found.content); error != 0) {
            return error;
        }
        // What is home must be durable before the records that could bring it there again go.
        if (error = inner_->sync(); error != 0) {
            return error;
        }
    }
    const bool isOver = !journal_ || (!journal_->isBegun() && !journal_->isUnreadable());
    return isOver ? 0 : endReplayed();
}

std::int32_t JournaledDevice::endReplayed() noexcept {
    // From here on the volume changes. A record that stayed valid would bring this moment back.
    std::int32_t error = journal_->end();
    if (error == EIO && journal_->isUnreadable()) {
        // The volume is fit for use all the same, and must not depend on this sector.
        error = journal_->makeInvalid();
        hidesLog_ = error == 0;
        absence_ = hidesLog_ ? JournalAbsence::unreadable : absence_;
    }
    return error;
}

std::int32_t JournaledDevice::refuse(std::uint64_t page, bool readOnly) noexcept {
    wasRefused_ = true;
    tell([&] {
        log().error(fmt::format("journal: not replayed: the volume {} (page {})", kRefusal, page));
        events().event("journal_refused", Fields{{"page", page}, {"ro", readOnly}});
    });
    if (readOnly) {
        return 0;
    }
    // The flag first: once the records are gone, nothing else says that a flush is missing.
    DeviceBox box(inner_);
    const ntb_io io = makeIO(box);
    if (const std::int32_t error = ntb_mark_dirty(&io); error != 0 && error != EINVAL) {
        return error;
    }
    if (const std::int32_t error = inner_->sync(); error != 0) {
        return error;
    }
    return journal_->end();
}

std::int32_t JournaledDevice::begin() noexcept {
    if (!journal_ || hidesLog_) {
        return 0;
    }
    const std::int32_t error = journal_->inspect();
    if (error == EIO) {
        absence_ = JournalAbsence::unreadable;
        hidesLog_ = true;
        return 0;
    }
    if (error == 0) {
        sums_.enable();
        isOn_ = true;
    }
    return error;
}

bool JournaledDevice::isSettled() const noexcept {
    return !isOn_ || (pending_.empty() && !hasGoneAhead_ && !journal_->isBegun());
}

std::int32_t JournaledDevice::settle() noexcept {
    if (isSettled()) {
        return 0;
    }
    if (!pending_.empty() || hasGoneAhead_) {
        if (const std::int32_t error = sync(); error != 0) {
            return error;
        }
    }
    TAVELIN_ASSERT(pending_.empty() && !checkpointPending_);
    if (!journal_->isBegun()) {
        return 0;
    }
    if (const std::int32_t error = inner_->sync(); error != 0) {
        return error;
    }
    if (const std::int32_t error = journal_->end(); error != 0) {
        return error;
    }
    inJournal_.clear();
    return 0;
}

std::int32_t JournaledDevice::close() noexcept {
    if (const std::int32_t error = settle(); error != 0) {
        return error;
    }
    isOn_ = false;
    return 0;
}

} // namespace tavelin
