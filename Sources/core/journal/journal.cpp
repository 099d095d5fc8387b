#include "core/journal/journal.hpp"

#include "core/device_box.hpp"
#include "platform/assert.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <random>
#include <utility>

namespace tavelin {

namespace {

constexpr std::uint64_t kRecordWriteBytesMax = 256 * LogFile::kPage; ///< longest write of a record

std::uint64_t randomNumber() {
    std::random_device source;
    return std::uint64_t{source()} << 32 | source();
}

} // namespace

Journal::Journal(std::shared_ptr<BlockDevice> device, LogFile log, std::uint64_t serial)
    : device_(std::move(device)),
      log_(std::move(log)),
      serial_(serial),
      end_(std::min(log_.size(), kBegin + kRecordBytesMax)),
      capacity_((end_ - kBegin) / kPage) {
    TAVELIN_ASSERT(log_.size() >= kBegin + kRecordBytesMin);
    // Behind a record without pages.
    while (JournalRecord::length(0) + JournalRecord::length(capacity_) > (end_ - kBegin) / kPage) {
        --capacity_;
    }
}

std::int32_t Journal::find(const std::shared_ptr<BlockDevice>& device,
                           std::optional<Journal>& found, JournalAbsence& absence) noexcept {
    std::optional<LogFile> log;
    if (const std::int32_t error = LogFile::find(device, log, absence); error != 0 || !log) {
        return error;
    }
    if (log->size() < kBegin + kRecordBytesMin) {
        absence = JournalAbsence::tooSmall;
        return 0;
    }
    try {
        DeviceBox box(device);
        const ntb_io io = makeIO(box);
        std::uint64_t serial = 0;
        if (ntb_probe(&io, &serial) != 0) {
            return EIO; // it was an NTFS volume a moment ago
        }
        found = Journal(device, *std::move(log), serial);
        return 0;
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

// ---- Reading -----------------------------------------------------------------------------------

std::int32_t Journal::readRecord(std::uint64_t position, const LastRecord& last, Found& found) {
    found.entries.reset();
    std::vector<std::byte>& whole = found.bytes;
    whole.resize(kPage);
    if (const std::int32_t error = log_.read(whole.data(), position, kPage); error != 0) {
        isUnreadable_ = isUnreadable_ || error == EIO;
        return error == EIO ? 0 : error;
    }
    const auto record = JournalRecord::parse(whole.data());
    // The session keeps apart what an earlier one left behind; the sequence, what an earlier lap
    // of the same one did.
    const bool isNext = !last || (record && record->session == last->session &&
                                  record->sequence == last->sequence + 1);
    if (!record || !isNext || record->serial != serial_ || record->pages > capacity_ ||
        position + JournalRecord::length(record->pages) * kPage > end_) {
        return 0;
    }
    whole.resize(JournalRecord::length(record->pages) * kPage);
    const std::uint64_t rest = whole.size() - kPage;
    const std::int32_t error =
        rest > 0 ? log_.read(whole.data() + kPage, position + kPage, rest) : 0;
    if (error != 0) {
        // A sector that was being written when the power went may be unreadable ever after: the
        // record was not committed then, and ends the journal like one that is not whole.
        isUnreadable_ = isUnreadable_ || error == EIO;
        return error == EIO ? 0 : error;
    }
    found.entries = record->decode(whole, (device_->size() + kPage - 1) / kPage);
    found.record = *record;
    return 0;
}

std::int32_t Journal::readRecords(std::uint64_t end, JournaledPages& pages, LastRecord& last,
                                  std::uint64_t& position) {
    bool isOurs = false;
    bool isLost = false;
    if (const auto error = log_.isBlank(0, kBegin, isOurs, isLost); error != 0) {
        return error;
    }
    // Nothing of ours is in these 64 KiB, and a record says itself what it may replace: a page of
    // them that cannot be read does not make it invalid. Where the others are not blank, they are
    // a journal of Windows's, which is not ours to judge or mend.
    isUnreadable_ = isOurs && isLost;
    Found found;
    for (position = kBegin; isOurs && position < end; position += found.bytes.size()) {
        if (const auto failed = readRecord(position, last, found); failed != 0) {
            return failed;
        }
        if (!found.entries) {
            break;
        }
        last = found.record;
        const std::byte* content =
            found.bytes.data() + JournalRecord::headerPages(last->pages) * kPage;
        for (const JournalEntry& entry : *found.entries) {
            auto& page = pages.content[entry.page];
            page = std::make_unique_for_overwrite<DevicePage>();
            std::memcpy(page->data(), content, kPage);
            content += kPage;
            auto& expected = pages.expected[entry.page];
            expected.push_back(entry.before);
            expected.push_back(entry.after);
        }
    }
    return 0;
}

std::int32_t Journal::readPending(JournaledPages& pages) noexcept {
    TAVELIN_ASSERT(!isBegun_);
    try {
        LastRecord last;
        std::uint64_t position = kBegin;
        const std::int32_t error = readRecords(end_, pages, last, position);
        hasForeignContent_ = last || isUnreadable_;
        if (error == 0 && last) {
            session_ = last->session;
            sequence_ = last->sequence + 1;
            position_ = used_ = position;
            isBegun_ = true;
        }
        return error;
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

std::int32_t Journal::readCommitted(PageMap& pages) noexcept {
    try {
        LastRecord last;
        std::uint64_t position = kBegin;
        JournaledPages found;
        const std::int32_t error = readRecords(position_, found, last, position);
        // What this session has written and cannot read back is lost: that must be answered.
        const bool isComplete = position == position_;
        pages = std::move(found.content);
        return error == 0 && !isComplete ? EIO : error;
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

// ---- Writing -----------------------------------------------------------------------------------

std::int32_t Journal::inspect() noexcept {
    bool isBlank = false;
    bool isLost = false;
    const std::int32_t error = log_.isBlank(0, kBegin + kPage, isBlank, isLost);
    hasForeignContent_ = !isBlank;
    return error == 0 && isLost ? EIO : error;
}

std::int32_t Journal::begin() noexcept {
    if (isBegun_) {
        return 0;
    }
    try {
        session_ = randomNumber();
    } catch (const std::exception&) {
        return EIO; // no random numbers to be had
    }
    if (hasForeignContent_) {
        if (const std::int32_t error = blankAll(); error != 0) {
            return error;
        }
    }
    TAVELIN_ASSERT(position_ == kBegin && !isStartingOver_);
    used_ = kBegin;
    isBegun_ = true;
    return 0;
}

std::int32_t Journal::append(const PageMap& content,
                             std::span<const JournalEntry> entries) noexcept {
    TAVELIN_ASSERT(isBegun_ && !content.empty() && content.size() == entries.size());
    TAVELIN_ASSERT(content.size() <= capacity_ && fits(content.size()));
    try {
        const JournalRecord record{.pages = static_cast<std::uint32_t>(entries.size()),
                                   .flags = 0,
                                   .serial = serial_,
                                   .session = session_,
                                   .sequence = sequence_};
        std::vector<std::byte> run = record.encode(entries);
        std::uint64_t done = 0;
        for (const auto& [number, page] : content) {
            if (run.size() >= kRecordWriteBytesMax) {
                if (const auto error = log_.write(run.data(), position_ + done, run.size());
                    error != 0) {
                    return error;
                }
                done += run.size();
                run.clear();
            }
            run.insert(run.end(), page->begin(), page->end());
            record.escape(run.data() + run.size() - kPage);
        }
        appended_ = done + run.size();
        TAVELIN_ASSERT(appended_ == JournalRecord::length(entries.size()) * kPage);
        used_ = std::max(used_, position_ + appended_);
        return log_.write(run.data(), position_ + done, run.size());
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

void Journal::commit() noexcept {
    TAVELIN_ASSERT(appended_ != 0 && !isStartingOver_);
    position_ += std::exchange(appended_, 0);
    ++sequence_;
}

void Journal::checkInvariants() const noexcept {
    TAVELIN_ASSERT(position_ >= kBegin && position_ <= end_ && position_ % kPage == 0);
    TAVELIN_ASSERT(position_ + appended_ <= end_);
    TAVELIN_ASSERT(used_ >= kBegin && used_ <= end_);
    TAVELIN_ASSERT(position_ == kBegin || used_ >= position_);
    TAVELIN_ASSERT(position_ == kBegin || isBegun_);
    TAVELIN_ASSERT(sequence_ >= 1);
    TAVELIN_ASSERT(JournalRecord::length(capacity_) * kPage <= end_ - kBegin);
}

// The header of a record without pages is in one block, which a cut leaves old or new.
std::uint64_t Journal::headerBlock() const noexcept {
    return std::max<std::uint64_t>(device_->blockSize(), kSectorBytes);
}

std::int32_t Journal::reset() noexcept {
    isStartingOver_ = true;
    try {
        const JournalRecord record{.serial = serial_, .session = session_, .sequence = sequence_};
        const std::vector<std::byte> header = record.encode({});
        if (const auto error = log_.write(header.data(), kBegin, headerBlock()); error != 0) {
            return error;
        }
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
    // Without this sync a cut could keep the old header and lose parts of what it makes valid.
    if (const auto error = device_->sync(); error != 0) {
        return error;
    }
    ++sequence_;
    position_ = kBegin + kPage;
    used_ = std::max(used_, position_);
    isStartingOver_ = false;
    return 0;
}

std::int32_t Journal::end() noexcept {
    if (const auto error = reset(); error != 0) {
        return error;
    }
    const std::uint64_t last = hasForeignContent_ ? log_.size() : used_;
    if (const auto error = log_.makeBlank(kBegin + headerBlock(), last); error != 0) {
        return error;
    }
    if (const auto error = hasForeignContent_ ? log_.makeBlank(0, kBegin) : 0; error != 0) {
        return error;
    }
    if (const auto error = device_->sync(); error != 0) {
        return error;
    }
    // From here on nothing may follow the header, which may be gone.
    isStartingOver_ = true;
    if (const auto error = log_.makeBlank(kBegin, kBegin + headerBlock()); error != 0) {
        return error;
    }
    if (const auto error = device_->sync(); error != 0) {
        return error;
    }
    position_ = used_ = kBegin;
    isBegun_ = isStartingOver_ = hasForeignContent_ = false;
    return 0;
}

std::int32_t Journal::makeInvalid() noexcept {
    log_.makeBlankWherePossible(kBegin, log_.size());
    static_cast<void>(device_->sync()); // what counts is what can be read back
    JournaledPages pages;
    isBegun_ = false;
    const std::int32_t error = readPending(pages);
    return error != 0 || !isBegun_ ? error : EIO;
}

// The first 64 KiB last: what they hold decides whether anything behind them is valid. The header
// of what a session of ours may have left behind goes first of all.
std::int32_t Journal::blankAll() noexcept {
    if (const auto error = log_.makeBlank(kBegin, kBegin + kPage); error != 0) {
        return error;
    }
    if (const auto error = device_->sync(); error != 0) {
        return error;
    }
    if (const auto error = log_.makeBlank(kBegin + kPage, log_.size()); error != 0) {
        return error;
    }
    if (const auto error = device_->sync(); error != 0) {
        return error;
    }
    if (const auto error = log_.makeBlank(0, kBegin); error != 0) {
        return error;
    }
    if (const auto error = device_->sync(); error != 0) {
        return error;
    }
    hasForeignContent_ = false;
    used_ = kBegin;
    return 0;
}

} // namespace tavelin
