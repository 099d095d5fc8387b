// Making, writing and ending a journal. Reading one is in journal_reading.cpp.
#include "core/journal/journal.hpp"

#include "core/device_box.hpp"
#include "platform/assert.hpp"

#include <algorithm>
#include <cerrno>
#include <new>
#include <random>
#include <tuple>
#include <utility>

namespace tavelin {

namespace {

constexpr std::uint64_t kRecordWriteBytesMax = 256 * LogFile::kPage; ///< longest write of a record

std::uint64_t randomNumber() {
    // Two draws, as one has 32 bits. The number need not be secret: it only has to differ from
    // those of earlier sessions, whose records may still lie in the file.
    std::random_device source;
    return std::uint64_t{source()} << 32 | source();
}

} // namespace

Journal::Journal(std::shared_ptr<BlockDevice> device, LogFile log, std::uint64_t serial)
    : device_(std::move(device)),
      log_(std::move(log)),
      serial_(serial),
      end_(std::min(log_.size(), kBegin + kRecordBytesMax)),
      capacity_((end_ - kBegin) / kPage),
      namedCapacity_(std::min(kNamedPagesMax, capacity_ / 2)) {
    TAVELIN_ASSERT(log_.size() >= kBegin + kRecordBytesMin);
    // After a reset the file begins with a record without pages. The largest record must fit behind
    // that one, or a sync of `capacity_` pages would fail for as long as the session lasts.
    while (JournalRecord::length(0, 0) + JournalRecord::length(capacity_, namedCapacity_) >
           (end_ - kBegin) / kPage) {
        --capacity_;
    }
}

std::int32_t Journal::find(const std::shared_ptr<BlockDevice>& device,
                           std::optional<Journal>& found, JournalAbsence& absence) noexcept {
    std::optional<LogFile> log;
    if (const std::int32_t error = LogFile::find(device, log, absence); error != 0 || !log) {
        return error;
    }
    // A smaller file is sound, but a sync of a few pages would fill it, and operations would be
    // split over several records.
    if (log->size() < kBegin + kRecordBytesMin) {
        absence = JournalAbsence::tooSmall;
        return 0;
    }
    try {
        DeviceBox box(device);
        const ntb_io io = makeIO(box);
        // Each record carries the volume's serial number. A formatter may leave old records in the
        // clusters of the new $LogFile: by their number they are not valid.
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

std::int32_t Journal::inspect() noexcept {
    bool isBlank = false;
    bool isLost = false;
    // One page more than the 64 KiB. A header there that replay found invalid is the remainder of
    // an older session, and end() must blank that as well.
    const std::int32_t error = log_.isBlank(0, kBegin + kPage, isBlank, isLost);
    hasForeignContent_ = !isBlank;
    // A sector that cannot be read may not take a write either, and a journal that fails in the
    // middle of a session would fail every sync. The caller then works without one.
    return error == 0 && isLost ? EIO : error;
}

std::int32_t Journal::begin(bool setsDirtyFlag) noexcept {
    TAVELIN_ASSERT(!isBegun_);
    try {
        session_ = randomNumber();
    } catch (const std::exception&) {
        return EIO; // no random numbers to be had
    }
    // Now and not at the mount, so that a mount that changes nothing writes nothing. The content
    // goes before the first record is written: behind a journal of Windows no record would be
    // valid.
    if (hasForeignContent_) {
        if (const std::int32_t error = blankAll(); error != 0) {
            return error;
        }
    }
    TAVELIN_ASSERT(position_ == kBegin && !isResetting_);
    used_ = kBegin;
    flags_ = setsDirtyFlag ? JournalRecord::kSetsDirtyFlag : 0;
    isBegun_ = true;
    return 0;
}

std::int32_t Journal::append(const PageMap& content, std::span<const JournalEntry> entries,
                             bool isPart) noexcept {
    TAVELIN_ASSERT(isBegun_ && !content.empty() && content.size() <= entries.size());
    const std::uint64_t named = entries.size() - content.size();
    TAVELIN_ASSERT(content.size() <= capacity_ && named <= namedCapacity_);
    TAVELIN_ASSERT(fits(content.size(), named));
    try {
        const auto session = static_cast<std::uint16_t>(flags_ & JournalRecord::kSetsDirtyFlag);
        appendedFlags_ = session | (isPart ? JournalRecord::kIsPart : std::uint16_t{0});
        const JournalRecord record{.pages = static_cast<std::uint32_t>(content.size()),
                                   .flags = appendedFlags_,
                                   .named = static_cast<std::uint16_t>(named),
                                   .serial = serial_,
                                   .session = session_,
                                   .sequence = sequence_};
        const std::vector<std::byte> header = record.encode(entries);
        // The pages are written from where they wait. Only the bytes that the escape changes are
        // copied.
        using Escaped = JournalRecord::Escaped;
        std::vector<Escaped> starts;
        starts.reserve(content.size()); // whose elements are pointed at from here on
        std::vector<std::span<const std::byte>> parts{header};
        std::uint64_t done = 0;
        std::uint64_t length = header.size();
        for (const auto& [number, page] : content) {
            if (length >= kRecordWriteBytesMax) {
                if (const auto error = log_.writeGathered(parts, position_ + done); error != 0) {
                    return error;
                }
                done += length;
                length = 0;
                parts.clear();
            }
            starts.push_back(record.escaped(page->data()));
            parts.emplace_back(starts.back());
            parts.push_back(std::span(*page).subspan(starts.back().size()));
            length += kPage;
        }
        appended_ = done + length;
        TAVELIN_ASSERT(appended_ == record.length() * kPage);
        used_ = std::max(used_, position_ + appended_);
        return log_.writeGathered(parts, position_ + done);
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

void Journal::commit() noexcept {
    TAVELIN_ASSERT(appended_ != 0 && !isResetting_);
    // Only now does the position move. Had the device's sync failed, the next append would
    // overwrite this record under the same sequence number, and at most one of the two can be
    // whole.
    position_ += std::exchange(appended_, 0);
    flags_ = appendedFlags_;
    ++sequence_;
    log_.forgetFailures();
}

void Journal::checkInvariants() const noexcept {
    TAVELIN_ASSERT(position_ >= kBegin && position_ <= end_ && position_ % kPage == 0);
    TAVELIN_ASSERT(position_ + appended_ <= end_);
    // end() blanks up to used_, so it must cover every record of the session.
    TAVELIN_ASSERT(used_ >= kBegin && used_ <= end_);
    TAVELIN_ASSERT(position_ == kBegin || used_ >= position_);
    // Outside a session the file is blank and the next record is the first.
    TAVELIN_ASSERT(position_ == kBegin || isBegun_);
    TAVELIN_ASSERT(sequence_ >= 1);
    TAVELIN_ASSERT(JournalRecord::length(capacity_, namedCapacity_) * kPage <= end_ - kBegin);
}

// The bytes that hold the header of a record without pages. It is one block of the device, which a
// power cut leaves old or new but never mixed.
std::uint64_t Journal::headerBlock() const noexcept {
    return std::max<std::uint64_t>(device_->blockSize(), kSectorBytes);
}

std::int32_t Journal::reset() noexcept {
    isResetting_ = true;
    try {
        // This one write invalidates all records. The new header has a sequence number that no
        // record of the file follows, and it lists no pages, so replay finds nothing to do.
        const JournalRecord record{
            .flags = flags_, .serial = serial_, .session = session_, .sequence = sequence_};
        const std::vector<std::byte> header = record.encode({});
        if (const auto error = log_.write(header.data(), kBegin, headerBlock()); error != 0) {
            return error;
        }
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
    // Records after this one overwrite the old ones. Unless the new header is durable first, a cut
    // could keep the old header and lose parts of the records that it makes valid.
    if (const auto error = device_->sync(); error != 0) {
        return error;
    }
    ++sequence_;
    position_ = kBegin + kPage;
    used_ = std::max(used_, position_);
    // On every return above the flag stays set: the header on the device may be the old or the new
    // one, so no record may be appended until a reset has succeeded.
    isResetting_ = false;
    return 0;
}

std::int32_t Journal::end() noexcept {
    // The reset was step one. It made the records invalid while their successor is one sector. A
    // cut at any point leaves that record without pages, and the next mount goes on with the end.
    TAVELIN_ASSERT(!isResetting_ && position_ == kBegin + kPage);
    // Step two blanks everything behind the header. What this session did not write may lie
    // anywhere in the file, so it is then blanked as a whole.
    const std::uint64_t last = hasForeignContent_ ? log_.size() : used_;
    if (const auto error = log_.makeBlank(kBegin + headerBlock(), last); error != 0) {
        return error;
    }
    // The first 64 KiB are only touched when they may hold something: after a replay they may have
    // a page that could not be read, which a write may restore.
    if (const auto error = hasForeignContent_ ? log_.makeBlank(0, kBegin) : 0; error != 0) {
        return error;
    }
    if (const auto error = device_->sync(); error != 0) {
        return error;
    }
    // A failure from here on leaves it open whether the header is still there. A record must not be
    // appended behind a header that is gone, so the next sync resets first.
    isResetting_ = true;
    // Step three. The header goes after everything behind it is durably blank: a cut before this
    // leaves the header, and with it the sign that the file is not finished.
    if (const auto error = log_.makeBlank(kBegin, kBegin + headerBlock()); error != 0) {
        return error;
    }
    if (const auto error = device_->sync(); error != 0) {
        return error;
    }
    position_ = used_ = kBegin;
    // The file is all 0xff, as a formatter leaves it. Any system finds it as if there had been no
    // journal.
    isBegun_ = isResetting_ = hasForeignContent_ = false;
    log_.forgetFailures();
    return 0;
}

std::int32_t Journal::makeInvalid() noexcept {
    // Blanks every page that takes a write. One blank page invalidates the record that it belongs
    // to and all records behind it.
    log_.makeBlankWherePossible(kBegin, log_.size());
    // A bad sector elsewhere in its page leaves the header, which by itself has the next mount
    // clear the volume's flag.
    static_cast<void>(log_.makeBlank(kBegin, kBegin + headerBlock()));
    // The sync may fail for the page that cannot be written. The result is decided by reading the
    // file again.
    static_cast<void>(device_->sync());
    // Where no page of a valid record can be read any more the volume may change. Where one can,
    // the next mount would replay it over later changes, so the caller must not go on.
    JournaledPages pages;
    const auto session = std::tuple(isBegun_, session_, flags_, sequence_, position_, used_);
    isBegun_ = false;
    const std::int32_t error = readPending(pages);
    appended_ = 0;
    if (error != 0 || !pages.content.empty()) {
        // The session stays as it was, and resets before its next record.
        std::tie(isBegun_, session_, flags_, sequence_, position_, used_) = session;
        isResetting_ = isBegun_;
        return error != 0 ? error : EIO;
    }
    isBegun_ = isResetting_ = false;
    position_ = used_ = kBegin;
    return 0;
}

// Three steps, each durable before the next. The page of the first header goes first: without it no
// record behind is valid. The first 64 KiB go last: until then they mark the file as another
// system's, which by itself makes every record invalid.
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
