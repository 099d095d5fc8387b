// What a journal finds of itself on a device.
#include "core/journal/journal.hpp"
#include "platform/assert.hpp"

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

namespace tavelin {

std::int32_t Journal::readRecord(std::uint64_t position, const LastRecord& last, Found& found) {
    found.entries.reset();
    std::vector<std::byte>& whole = found.bytes;
    whole.resize(kPage);
    // One page first. It has the fixed part of the header, and only that says how long the record
    // is.
    if (const std::int32_t error = log_.read(whole.data(), position, kPage); error != 0) {
        isUnreadable_ = isUnreadable_ || error == EIO;
        return error == EIO ? 0 : error;
    }
    const auto record = JournalRecord::parse(whole.data());
    // The session rejects records of an earlier session. The sequence number rejects those of an
    // earlier lap of this one, which lie behind the last record after a reset.
    const bool isNext = !last || (record && record->session == last->session &&
                                  record->sequence == last->sequence + 1);
    // No checksum has been verified so far, so a damaged header may claim any count of pages. The
    // limit keeps the next read inside the file and its memory bounded.
    if (!record || !isNext || record->serial != serial_ ||
        position + record->length() * kPage > end_) {
        return 0;
    }
    whole.resize(record->length() * kPage);
    const std::uint64_t rest = whole.size() - kPage;
    const std::int32_t error =
        rest > 0 ? log_.read(whole.data() + kPage, position + kPage, rest) : 0;
    if (error != 0) {
        // A sector that was being written when the power went may be unreadable ever after: the
        // record was not committed then, and ends the journal like one that is not whole.
        isUnreadable_ = isUnreadable_ || error == EIO;
        return error == EIO ? 0 : error;
    }
    // A device of no whole number of pages still has its last page, hence the rounding up. An entry
    // beyond it would have replay write past the device's end.
    found.entries = record->decode(whole, (device_->size() + kPage - 1) / kPage);
    found.record = *record;
    return 0;
}

std::int32_t Journal::readRecords(std::uint64_t end, JournaledPages& pages, LastRecord& last,
                                  std::uint64_t& position) {
    bool isOurs = false;
    bool isLost = false;
    // Windows keeps its restart pages in the first 64 KiB. Where they are not blank, Windows or
    // another driver has used the file since, and has written over the volume without regard to our
    // records.
    if (const auto error = log_.isBlank(0, kBegin, isOurs, isLost); error != 0) {
        return error;
    }
    // A page of these 64 KiB that cannot be read does not make the records invalid: nothing of ours
    // is in it, and each record says itself what it may replace. Where the readable ones are not
    // blank they belong to a journal of Windows, which is not ours to judge or repair.
    isUnreadable_ = isOurs && isLost;
    hasRemainder_ = false;
    Found found;
    for (position = kBegin; isOurs && position < end; position += found.bytes.size()) {
        if (const auto failed = readRecord(position, last, found); failed != 0) {
            return failed;
        }
        if (!found.entries) {
            hasRemainder_ = position == kBegin && JournalRecord::hasMagic(found.bytes.data());
            break;
        }
        last = found.record;
        const auto carried = found.entries->begin() + last->pages;
        pages.last.assign(found.entries->begin(), carried);
        pages.named.assign(carried, found.entries->end());
        pages.lastPosition = position;
        const std::byte* content = found.bytes.data() + last->headerPages() * kPage;
        for (const JournalEntry& entry : pages.last) {
            // A later record supersedes an earlier one page by page, as its sync came later.
            auto& page = pages.content[entry.page];
            page = std::make_unique_for_overwrite<DevicePage>();
            std::memcpy(page->data(), content, kPage);
            content += kPage;
            // All states of the page are kept, not the last one alone. A cut during a home write
            // may leave any of them, and different sectors of one page may be in different states.
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
        // Records of an earlier lap may lie behind the last valid one, and it is not known how far
        // they reach. end() must then blank the whole file.
        hasForeignContent_ = last || isUnreadable_ || hasRemainder_;
        if (error == 0 && last) {
            // The session goes on where it stopped, so that reset() and end() write a header that
            // supersedes the records found. A cut in the middle of them leaves either.
            session_ = last->session;
            flags_ = last->flags;
            sequence_ = last->sequence + 1;
            position_ = used_ = position;
            isBegun_ = true;
        }
        return error;
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

std::int32_t Journal::readWithoutLast(std::uint64_t lastPosition, JournaledPages& pages) noexcept {
    TAVELIN_ASSERT(isBegun_);
    const bool wasUnreadable = isUnreadable_;
    try {
        LastRecord last;
        std::uint64_t position = kBegin;
        const std::int32_t error = readRecords(lastPosition, pages, last, position);
        // What lies behind has been read before, and was perhaps unreadable.
        isUnreadable_ = isUnreadable_ || wasUnreadable;
        if (last) {
            flags_ = last->flags;
        } else {
            endParts();
        }
        return error == 0 && position != lastPosition ? EIO : error;
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

std::int32_t Journal::readCommitted(PageMap& pages) noexcept {
    try {
        LastRecord last;
        std::uint64_t position = kBegin;
        // Read up to position_ and no further: behind it may stand a record whose sync failed. Its
        // pages are pending, but nobody was told that they are durable.
        JournaledPages found;
        const std::int32_t error = readRecords(position_, found, last, position);
        // Every record up to position_ was synchronised. If one cannot be read back, its pages that
        // did not reach their home are lost, and the caller must hear of it.
        const bool isComplete = position == position_;
        pages = std::move(found.content);
        return error == 0 && !isComplete ? EIO : error;
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

} // namespace tavelin
